// SPDX-License-Identifier: MIT
#include "zelshellloop_p.h"

#include "zelcompleter_p.h"
#include "zelshellexecatestring_p.h"
#include "zelshellgreeting_p.h"
#include "zelshelllog_p.h"
#include "zelshellreply_p.h"
#include "zelshellserverstate_p.h"
#include "zelterminal_p.h"

#include <QDebug>
#include <QStringBuilder>
#include <algorithm>

ZELShellLoop::ZELShellLoop(ZELShellPrivate &session)
    : m_session(session)
    , m_editor(&session.history)
    , m_limit(zelProtocolTag().toLatin1())
{
}

void ZELShellLoop::run()
{
    ZELShellGreeting greeting(m_session, *this);
    if (!m_session.isMain && !greeting.shakeHands())
        return;
    m_editor.setTerminal(!m_session.noTerminal);
    m_editor.setUtf8(m_session.utf8Editing);
    if (m_session.noTerminal)
        ZELWriteBehind::enable(); // nothing is prompted for: a prompt counts the writes before it
    if (!m_session.isMain || m_session.noTerminal)
        greeting.banner();
    ZELShellPrivate::log(QStringLiteral("ZELShell Start"));
    if (isModern())
        return promptKeys();
    m_session.printPrompt();
    keys();
}

char ZELShellLoop::getChar()
{
    if (m_next >= m_buffer.size() && (m_session.isStopping() || !refill()))
        return 0;
    return m_buffer.at(m_next++);
}

bool ZELShellLoop::refill()
{
    m_buffer.clear();
    m_next = 0;
    ZELStream *stream = m_session.output.stream();
    if (!m_session.waitingSince) // since the last line: single bytes are no statement
        m_session.noteWaiting();
    if (stream) {
        do
            m_buffer = stream->readAll();
        while (isTelnet() && m_buffer.isEmpty());
    }
    // A script in a pipe may lack its last line's end. What a terminal or a peer was cut off in is not run.
    if (m_buffer.isEmpty() && m_limit.length() > 0 && m_session.isMain && m_session.output.isPiped())
        m_buffer = QByteArrayLiteral("\n");
    if (m_buffer.isEmpty()) {
        m_session.because("the input has ended");
        m_session.stopState = ZELShellPrivate::Ended;
    }
    return !m_buffer.isEmpty();
}

void ZELShellLoop::keys()
{
    zelTerminalOnResume([this] { redraw(); });
    while (!m_session.isStopping()) {
        feedPlain();
        // Bytes that arrived together are echoed together.
        if (m_next >= m_buffer.size())
            flush();
        const char byte = getChar();
        if (m_session.isStopping())
            return;
        if (zelTakeFaultRecovery())
            recover();
        if (!isTooLong(byte))
            feed(byte);
    }
}

void ZELShellLoop::feed(char byte)
{
    switch (m_editor.feed(byte)) {
    case ZELLineEditor::Line:
        flush();
        m_limit.restart();
        runLine(m_editor.takeLine());
        break;
    case ZELLineEditor::Tab:
        flush();
        completeWord();
        break;
    case ZELLineEditor::None:
        break;
    }
}

/// Takes the text of a line in one piece, up to the byte that needs a look.
void ZELShellLoop::feedPlain()
{
    int length = m_buffer.size() - m_next;
    const int limit = m_session.lineLimit;
    if (limit != 0)
        length = m_limit.isDropping() ? 0 : std::min(length, limit - m_limit.length());
    if (length <= 0)
        return;
    const char *const bytes = m_buffer.constData() + m_next;
    const int taken = m_prompt ? m_prompt->feedPlain(bytes, length) : m_editor.feedPlain(bytes, length);
    m_next += taken;
    m_limit.add(taken);
}

void ZELShellLoop::flush()
{
    const QByteArray output = m_editor.takeOutput();
    if (!output.isEmpty())
        m_session.output.write(output);
}

/// Takes the byte away from the editor when the line has grown beyond the limit.
bool ZELShellLoop::isTooLong(char byte)
{
    if (!m_limit.exceeds(m_session.lineLimit, byte))
        return false;
    if (!m_limit.isDropping())
        m_limit.drop((m_prompt ? m_prompt->takeLine() : m_editor.takeLine()).toLatin1());
    if (byte == '\n' || (m_prompt && byte == '\r'))
        endTooLong();
    else
        m_limit.drop(QByteArray(1, byte));
    return true;
}

void ZELShellLoop::endTooLong()
{
    const ZELLineLimit::Dropped dropped = m_limit.takeDropped();
    m_session.refuseLine(zelTextOf(dropped.head), dropped.isTagged, zelTooLong(m_session.lineLimit));
    m_session.printPrompt();
}

void ZELShellLoop::recover()
{
    m_session.output.restoreRawMode();
    m_session.printPrompt();
}

/// The prompt and what was typed behind it, wherever the cursor is.
void ZELShellLoop::redraw()
{
    if (m_running)
        return;
    m_session.output.write(QByteArray("\r"));
    m_session.output.forgetPrompt();
    m_session.printPrompt();
    m_editor.redraw();
    flush();
}

void ZELShellLoop::runLine(QString line)
{
    // Clients in the manner of telnet end a line in CR LF.
    if (line.endsWith(QLatin1Char('\r')))
        line.chop(1);
    const auto isAscii = [](QChar c) { return c.unicode() < 0x80; };
    if (!std::all_of(line.cbegin(), line.cend(), isAscii) && line.contains(zelProtocolTag()))
        line = zelTextOf(line.toLatin1());
    line = m_begun + line;
    m_begun.clear();
    m_session.waitingSince = 0;
    const bool mayGoOn = zelHasScriptBlock(line) || line.trimmed().startsWith(QLatin1String("dostring "));
    if (mayGoOn && zelIsOpenScript(line) && !line.contains(zelProtocolTag())) {
        m_begun = line + QLatin1Char('\n');
        if (!m_session.noTerminal)
            m_session.output.write(QStringLiteral("> "));
        return;
    }
    if (!line.isEmpty()) {
        m_running = true;
        runPieces(zelTypedStatements(line));
        m_running = false;
        if (m_session.isMain && m_session.noTerminal)
            m_session.stopState = ZELShellPrivate::Ended;
    }
    if (!m_session.isStopping())
        m_session.printPrompt();
}

void ZELShellLoop::runPieces(const QStringList &pieces)
{
    m_session.pending += pieces.size();
    for (const QString &piece : pieces) {
        --m_session.pending;
        if (m_session.stopState == ZELShellPrivate::Ended)
            continue; // the peer has gone; behind "quit" the line is finished
        ZELWriteBehind::finish(); // the answer to the one before
        logStatement(piece);
        const QVariant value = runPiece(piece);
        if (!piece.endsWith(QLatin1Char('&')))
            m_session.environment.set(QStringLiteral("$?"), value.toString());
        if (zelTakeFaultRecovery())
            m_session.output.restoreRawMode();
    }
}

QVariant ZELShellLoop::runPiece(const QString &piece)
{
    const bool interruptible = m_session.interruptible && !m_session.noTerminal;
    if (piece.endsWith(QLatin1Char('&')))
        return m_session.runStatement(piece);
    if (!interruptible || piece.contains(zelProtocolTag()))
        return m_session.runForeground(piece);
    m_result = QVariant();
    const auto run = [&] { m_result = m_session.runStatement(piece); };
    if (!m_session.foreground.run(run, takeTypedInterrupt())) {
        ZELStatementDepth::reset();
        m_session.failed = true;
        m_session.output.write(QStringLiteral("EXECUTE_ERROR :Interrupted\r\n"));
    }
    return m_result;
}

/// A key that arrived together with the line means its statement, too.
bool ZELShellLoop::takeTypedInterrupt()
{
    const int at = m_buffer.indexOf(3, m_next);
    if (at >= 0)
        m_buffer.remove(at, 1);
    return at >= 0;
}

void ZELShellLoop::logStatement(const QString &statement)
{
    const bool isHidden = m_session.server->settings()->passwordHidden;
    const QString shown = isHidden ? zelWithoutPassword(statement) : statement;
    ZELShellPrivate::log(QLatin1Char('[') % m_session.text(&ZELShellPrivate::peer) % QLatin1String("] input command [")
        % zelLogged(shown) % QLatin1Char(']'));
}

void ZELShellLoop::completeWord()
{
    const ZELCompletion found = zelComplete(m_editor.text(), m_session.completionScope(), m_session.output.width());
    if (zelTakeFaultRecovery()) // a completion function of the host's
        m_session.output.restoreRawMode();
    if (!found.listing.isEmpty()) {
        m_session.output.write(m_editor.encode(QLatin1Char('\n') + found.listing));
        m_session.printPrompt();
        m_editor.redraw();
    }
    m_editor.append(found.insertion);
    flush();
}
