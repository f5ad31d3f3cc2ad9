// SPDX-License-Identifier: MIT
#include "zelshellloop_p.h"

#include "zelcompleter_p.h"
#include "zelshellexecatestring_p.h"
#include "zelshelllog_p.h"
#include "zelshellreply_p.h"
#include "zelshellserverstate_p.h"
#include "zelterminal_p.h"
#include "zeluser.h"

#include <QDebug>
#include <QStringBuilder>
#include <algorithm>

namespace {

const int loggedLength = 500;

QString line(const QString &text)
{
    return text.isEmpty() ? QString() : text + QLatin1Char('\n');
}

} // namespace

ZELShellLoop::ZELShellLoop(ZELShellPrivate &session)
    : m_session(session)
    , m_editor(&session.history)
{
}

void ZELShellLoop::run()
{
    if (!m_session.isMain && !handshake())
        return;
    m_editor.setTerminal(!m_session.noTerminal);
    m_editor.setUtf8(m_session.utf8Editing);
    if (m_session.noTerminal)
        ZELWriteBehind::enable(); // nothing is prompted for: a prompt counts the writes before it
    if (!m_session.isMain || m_session.noTerminal)
        banner();
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
    m_session.noteWaiting();
    if (stream) {
        do
            m_buffer = stream->readAll();
        while (isTelnet() && m_buffer.isEmpty());
    }
    m_session.waitingSince = 0;
    // A script in a pipe may lack its last line's end. What a terminal or a peer was cut off in is not run.
    if (m_buffer.isEmpty() && m_lineLength > 0 && m_session.isMain && m_session.output.isPiped())
        m_buffer = QByteArrayLiteral("\n");
    if (m_buffer.isEmpty()) {
        m_session.because("the input has ended");
        m_session.stopState = ZELShellPrivate::Ended;
    }
    return !m_buffer.isEmpty();
}

// Nothing when the peer left before the line's end: half a name is another user's. One byte more than the limit when
// the line is longer.
std::optional<QByteArray> ZELShellLoop::handshakeLine()
{
    QByteArray bytes;
    // What Enter is to a telnet client that has been told to send each key.
    const auto ends = [this](char byte) { return byte == '\n' || (byte == '\r' && m_telnet); };
    for (char byte = getChar(); !ends(byte); byte = getChar()) {
        if (byte == 0 && m_session.isStopping())
            return std::nullopt;
        const int limit = m_session.lineLimit;
        if (limit == 0 || bytes.size() <= limit)
            bytes += byte;
    }
    return bytes;
}

bool ZELShellLoop::handshake()
{
    const std::optional<QByteArray> hello = handshakeLine();
    if (!hello)
        return false;
    if (m_session.lineLimit != 0 && hello->size() > m_session.lineLimit)
        return turnAway(tooLong());
    const ZELArguments args(nullptr, QLatin1String("ZELShell ") + zelTextOf(*hello));
    const auto settings = m_session.server->settings();
    ZELShellPrivate::log(QLatin1String("================ get input =[")
        + (settings->passwordHidden ? zelWithoutPassword(QStringList(args)) : args.ToString(QStringLiteral(" ")))
        + QLatin1Char(']'));
    if (args.containsOpt(QStringLiteral("--nt")))
        m_session.noTerminal = true;
    m_session.output.setColumns(args.getOptFromString(QStringLiteral("--columns")).toInt());
    m_session.output.setRows(args.getOptFromString(QStringLiteral("--rows")).toInt());
    login(args, *settings);
    if (!settings->loginRequired || ZELUser::getUser(m_session.sessionUuid()).isLogin())
        return true;
    return turnAway(QStringLiteral("Error : login required"));
}

bool ZELShellLoop::turnAway(const QString &reason)
{
    m_session.output.write(line(reason));
    ZELShellPrivate::log(QLatin1Char('[') % m_session.text(&ZELShellPrivate::peer) % QLatin1String("] ") % reason);
    m_session.because("it was turned away");
    m_session.stopState = ZELShellPrivate::Ended;
    return false;
}

void ZELShellLoop::login(const ZELArguments &args, const ZELShellSettings &settings)
{
    const QUuid key(QLatin1Char('{') + args.getOptFromString(QStringLiteral("--key")) + QLatin1Char('}'));
    const bool hasUser = args.containsOpt(QStringLiteral("--user"));
    const bool hasKey = settings.keyLogin && args.containsOpt(QStringLiteral("--key"));
    // A failed login is no error: the session stays anonymous.
    if (hasKey && (!hasUser || ZELUser::getUser(key).isLogin()))
        joinLogin(key);
    else if (hasUser)
        loginByName(args, key, !settings.loginRequired);
}

void ZELShellLoop::loginByName(const ZELArguments &args, const QUuid &key, bool mayCreate)
{
    const QString name = args.getOptFromString(QStringLiteral("--user"));
    if (name.startsWith(QLatin1String("--"))) // the option behind a name that was left out
        return logFailedLogin(QStringLiteral("user"), QStringLiteral("no name"));
    const QString password = args.getOptFromString(QStringLiteral("--password"));
    ZELUser user = ZELUser::loginAs(name, password, m_session.loginDatabase(), key, mayCreate);
    if (!user.isLogin())
        logFailedLogin(QLatin1String("user ") + name, user.getErrorString());
    if (user.isLogin())
        m_session.setSessionUuid(user.tid().isNull() ? user.uid() : user.tid());
    if (user.isLogin())
        m_session.takeUserRoles(user.userName());
}

void ZELShellLoop::joinLogin(const QUuid &key)
{
    m_session.setSessionUuid(key);
    ZELUser user = ZELUser::getUser(key);
    if (user.isLogin())
        user.autologin();
    if (user.isLogin())
        m_session.takeUserRoles(user.userName());
    else
        logFailedLogin(QStringLiteral("key"), QStringLiteral("nobody has logged in with it"));
}

void ZELShellLoop::logFailedLogin(const QString &who, const QString &reason)
{
    ZELShellPrivate::log(QLatin1Char('[') % m_session.text(&ZELShellPrivate::peer) % QLatin1String("] failed login of ")
        % who % QLatin1String(" : ") % reason);
}

void ZELShellLoop::banner()
{
    const auto id = m_session.identity();
    if (id.product.isEmpty())
        m_session.output.write(QStringLiteral("ZELShell Start\n"));
    m_session.output.write((id.product.isEmpty() ? QStringLiteral("ZELShell\n") : line(id.product)) + line(id.version)
        + line(id.hardware) + line(id.custom) + QLatin1String("ConnectId = ")
        + line(m_session.sessionUuid().toString()));
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
        m_lineLength = 0;
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
        length = m_dropping ? 0 : std::min(length, limit - m_lineLength);
    if (length <= 0)
        return;
    const char *const bytes = m_buffer.constData() + m_next;
    const int taken = m_prompt ? m_prompt->feedPlain(bytes, length) : m_editor.feedPlain(bytes, length);
    m_next += taken;
    m_lineLength += taken;
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
    const int limit = m_session.lineLimit;
    ++m_lineLength;
    if (limit == 0 || m_lineLength <= limit || (byte == '\n' && !m_dropping))
        return false;
    if (!std::exchange(m_dropping, true)) {
        const QByteArray begun = (m_prompt ? m_prompt->takeLine() : m_editor.takeLine()).toLatin1();
        std::for_each(begun.begin(), begun.end(), [this](char earlier) { drop(earlier); });
    }
    if (byte == '\n' || (m_prompt && byte == '\r'))
        endTooLong();
    else
        drop(byte);
    return true;
}

void ZELShellLoop::drop(char byte)
{
    const bool isBlank = uchar(byte) <= ' ';
    if (m_droppedHead.size() < 1024 && !(isBlank && m_droppedHead.isEmpty()))
        m_droppedHead += byte;
    m_droppedTail += byte;
    if (m_droppedTail.size() > 4096) {
        const QByteArray tag = zelProtocolTag().toLatin1();
        m_droppedTagged = m_droppedTagged || m_droppedTail.contains(tag);
        m_droppedTail = m_droppedTail.right(tag.size());
    }
}

void ZELShellLoop::endTooLong()
{
    const bool tagged = m_droppedTagged || m_droppedTail.contains(zelProtocolTag().toLatin1());
    const QString head = zelTextOf(m_droppedHead);
    m_lineLength = 0;
    m_dropping = false;
    m_droppedHead.clear();
    m_droppedTail.clear();
    m_droppedTagged = false;
    m_session.refuseLine(head, tagged, tooLong());
    m_session.printPrompt();
}

QString ZELShellLoop::tooLong() const
{
    return QStringLiteral("Error : input is longer than %1 bytes").arg(m_session.lineLimit.load());
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
    if (zelHasScriptBlock(line) && zelIsOpenScript(line) && !line.contains(zelProtocolTag())) {
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
    const bool isLong = shown.size() > loggedLength;
    ZELShellPrivate::log(QLatin1Char('[') % m_session.text(&ZELShellPrivate::peer) % QLatin1String("] input command [")
        % shown.leftRef(loggedLength) % QLatin1String(isLong ? "...]" : "]"));
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
