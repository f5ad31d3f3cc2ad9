// SPDX-License-Identifier: MIT
#include "zelshellreply_p.h"

#include "zelarguments_p.h"
#include "zelgrapheme_p.h"
#include "zelguard_p.h"
#include "zelshell_p.h"
#include "zelshellfilters_p.h"

#include <QStringBuilder>
#include <QTextCodec>

namespace {

const QString errorState = QStringLiteral("EXECUTE_ERROR");

QString withoutLineEnd(QString text)
{
    if (text.endsWith(QLatin1Char('\n')))
        text.chop(1);
    return text;
}

} // namespace

QString zelTextOf(const QByteArray &bytes)
{
    ZELCriticalSection section;
    static const QTextCodec *const utf8 = QTextCodec::codecForName("UTF-8"); // looking it up takes a lock
    QTextCodec::ConverterState state;
    const QString text = utf8->toUnicode(bytes.constData(), bytes.size(), &state);
    return state.invalidChars || state.remainingChars ? QString::fromLatin1(bytes.constData(), bytes.size()) : text;
}

QString zelTooLong(int limit)
{
    return QStringLiteral("Error : input is longer than %1 bytes").arg(limit);
}

QString zelTextOfLines(const QByteArray &bytes)
{
    QString text;
    for (int from = 0; from < bytes.size();) {
        const int end = bytes.indexOf('\n', from) + 1;
        const int length = (end > 0 ? end : bytes.size()) - from;
        text += zelTextOf(QByteArray::fromRawData(bytes.constData() + from, length));
        from += length;
    }
    return text;
}

QByteArray ZELTextPieces::take(const QByteArray &bytes, bool isEnd)
{
    QByteArray all = std::exchange(m_held, QByteArray()) + bytes;
    for (int length = 1; !isEnd && length <= qMin(3, all.size()); ++length) {
        const char *const tail = all.constData() + all.size() - length;
        if (zelSequenceLength(tail, length) < 0) {
            m_held = all.right(length);
            all.chop(length);
            break;
        }
    }
    return all;
}

// A statement of a script that a remote statement runs answers as on a terminal, but in packets of that statement.

void ZELTerminalReply::text(const QString &text)
{
    if (m_args.hasProtocl())
        m_args.stream() << text;
    else if (const auto filter = ZELArgumentsPrivate::get(m_args)->filter)
        m_session.output.write(filter->pass(text));
    else
        m_session.output.write(text);
}

void ZELTerminalReply::bytes(const QByteArray &bytes)
{
    if (m_args.hasProtocl())
        m_args.stream() << zelTextOfLines(bytes);
    else
        m_session.output.write(bytes);
}

void ZELTerminalReply::value(const QString &value)
{
    text(value + QLatin1Char('\n'));
    m_args.setReturnValue(value);
}

void ZELTerminalReply::fail(const QString &message)
{
    m_args.setProtoclState(errorState);
    m_args.setErrorString(withoutLineEnd(message));
    zelFinishFilters(m_session, m_args);
    text(message);
}

void ZELTerminalReply::unknown(const QString &message)
{
    fail(message + QLatin1Char('\n'));
}

void ZELTerminalReply::farewell(const QString &, const QString &terminalText, const QString &)
{
    text(terminalText);
}

void ZELPacketReply::text(const QString &text)
{
    m_args.stream() << text;
}

void ZELPacketReply::bytes(const QByteArray &bytes)
{
    text(zelTextOfLines(bytes));
}

void ZELPacketReply::done()
{
    ZELShellPrivate::complete(m_args,
        m_args.hasRetrunValue() ? QStringLiteral("EXECUTE_RESULT") : QStringLiteral("EXECUTE_COMPLETE"),
        QLatin1String("Execute ") % m_args.getExecName() % QLatin1String(" Complete!"));
}

void ZELPacketReply::value(const QString &value)
{
    m_args.setReturnValue(value);
    done();
}

void ZELPacketReply::fail(const QString &message)
{
    m_args.setErrorString(withoutLineEnd(message));
    ZELShellPrivate::complete(m_args, errorState, withoutLineEnd(message));
}

void ZELPacketReply::unknown(const QString &message)
{
    m_args.setErrorString(message);
    ZELShellPrivate::complete(m_args, QStringLiteral("EXECUTE_NOTFOUND"), message);
}

void ZELPacketReply::farewell(const QString &state, const QString &, const QString &packetText)
{
    ZELShellPrivate::complete(m_args, state, packetText);
}
