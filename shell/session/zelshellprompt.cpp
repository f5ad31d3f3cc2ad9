// SPDX-License-Identifier: MIT
#include "zelshellprompt_p.h"

#include "zelcommandsplit_p.h"
#include "zelcompleter_p.h"
#include "zelhistoryevents_p.h"
#include "zelpalette.h"
#include "zelshell_p.h"
#include "zelshelllog_p.h"
#include "zelshellreply_p.h"
#include "zelshellserverstate_p.h"
#include "zeluser.h"

namespace {

const int promptLimitMs = 200;

/// Whether the cursor is at the beginning of a row behind these bytes; colours behind the row's end do not count.
bool endsRow(QByteArray bytes)
{
    while (bytes.endsWith('m')) {
        const int escape = bytes.lastIndexOf("\033[");
        if (escape < 0 || bytes.size() - escape > 12)
            break;
        bytes.truncate(escape);
    }
    return bytes.isEmpty() || bytes.endsWith('\n');
}

QByteArray bytesOf(const QString &text)
{
    return text.toUtf8();
}

/// Nobody turns line feeds into CR LF on the way to a peer whose terminal leaves all keys to us.
QByteArray withReturns(const QByteArray &bytes, char before)
{
    QByteArray text;
    text.reserve(bytes.size() + bytes.count('\n'));
    for (const char byte : bytes) {
        if (byte == '\n' && before != '\r')
            text += '\r';
        text += before = byte;
    }
    return text;
}

QString defaultPrompt(const ZELShellPrivate &session)
{
    return ZELPalette::paint(ZELPalette::Green, QStringLiteral("ZELShell@ZEL:~"))
        + ZELPalette::paint(ZELPalette::Blue, session.directories.path(true))
        + ZELPalette::paint(ZELPalette::Yellow, QStringLiteral(" $ "));
}

} // namespace

ZELShellPrompt::ZELShellPrompt(ZELShellPrivate &session)
    : m_session(session)
    , m_editor(&session.history)
{
}

ZELShellPrompt::~ZELShellPrompt()
{
    m_session.output.setComposer(nullptr);
}

void ZELShellPrompt::begin()
{
    const ZELUser user = ZELUser::getUser(m_session.sessionUuid());
    const QString cache = m_session.text(&ZELShellPrivate::cachePath);
    if (m_session.keepHistory && !cache.isEmpty() && (m_session.isMain || user.isLogin()))
        m_file = ZELHistoryFile(
            ZELHistoryFile::pathFor(cache, m_session.isMain ? QString() : user.userName()), m_session.history.limit());
    for (const QString &entry : m_file.load())
        m_session.history.add(entry);
    m_editor.setHints(ZELPalette::isOn());
    if (m_session.isMain)
        m_session.output.takeAllKeys();
    resize();
    m_session.output.setComposer([this](const QByteArray &bytes) { return compose(bytes); });
}

void ZELShellPrompt::resize()
{
    const auto window = m_session.output.window();
    m_session.output.alone([&] { m_editor.setSize(window.first, window.second); });
}

void ZELShellPrompt::end()
{
    if (m_isShown && m_session.output.isOpen())
        leave();
    m_session.output.setComposer(nullptr);
}

/// In the writer's thread.
QByteArray ZELShellPrompt::compose(const QByteArray &bytes)
{
    const QByteArray text = m_session.isMain ? bytes : withReturns(bytes, std::exchange(m_last, bytes.back()));
    m_isAtRowStart = endsRow(bytes);
    if (!m_isShown)
        return text;
    const QByteArray before = m_editor.hide();
    const QByteArray rowEnd = m_isAtRowStart ? QByteArray() : QByteArrayLiteral("\r\n");
    m_isAtRowStart = true;
    return before + text + rowEnd + m_editor.takeOutput();
}

int ZELShellPrompt::feedPlain(const char *bytes, int length)
{
    int taken = 0;
    m_session.output.alone([&] { taken = m_editor.feedPlain(bytes, length); });
    return taken;
}

ZELPromptEditor::Event ZELShellPrompt::feed(char byte)
{
    ZELPromptEditor::Event event = ZELPromptEditor::None;
    m_session.output.alone([&] { event = m_editor.feed(byte); });
    if (event == ZELPromptEditor::Interrupt)
        leave();
    return event;
}

void ZELShellPrompt::show()
{
    const bool isNew = !m_isShown; // set by this thread alone
    const QByteArray text = isNew ? promptText() : QByteArray();
    m_session.output.alone([&] {
        QByteArray shown;
        if (isNew) {
            const int above = text.lastIndexOf('\n') + 1;
            m_editor.setPrompt(text.mid(above));
            m_editor.forgetScreen();
            // The banner has line feeds only, which leave the cursor of a raw terminal where it was.
            shown = m_isAtRowStart ? (m_session.isMain ? "" : "\r") : "\r\n";
            shown += withReturns(text.left(above), 0);
        }
        m_isShown = true;
        m_isAtRowStart = true;
        m_session.output.write(shown + m_editor.takeOutput());
    });
}

void ZELShellPrompt::showAgain()
{
    m_session.output.alone([&] { m_editor.forgetScreen(); });
    m_session.output.alone([&] { m_session.output.write(QByteArrayLiteral("\r") + m_editor.takeOutput()); });
}

QByteArray ZELShellPrompt::promptText()
{
    if (!m_begun.isEmpty())
        return QByteArrayLiteral("> ");
    const auto settings = m_session.server->settings();
    if (!settings->prompt)
        return bytesOf(defaultPrompt(m_session));
    const auto text = std::make_shared<QString>(); // on the heap: a jump loses what the stack holds
    ZELFrame frame;
    frame->timeoutMs = promptLimitMs;
    const int state = zelGuard(frame.get(), [&] {
        if (const auto shell = m_session.life.ref().use())
            *text = settings->prompt(*shell.get());
    });
    return bytesOf(state == 0 ? *text : defaultPrompt(m_session));
}

/// What is to be seen of the line stays on the screen, and the next row is free.
void ZELShellPrompt::leave()
{
    m_session.output.alone([&] {
        m_isShown = false;
        m_session.output.write(m_editor.hide());
    });
}

QString ZELShellPrompt::takeLine()
{
    leave();
    QString line;
    m_session.output.alone([&] { line = m_editor.takeLine(); });
    return line;
}

void ZELShellPrompt::complete()
{
    QString before;
    m_session.output.alone([&] { before = m_editor.textBeforeCursor(); });
    const ZELWordCandidates found = zelCandidates(before, m_session.completionScope());
    QVector<ZELCandidate> candidates;
    for (const ZELShellCommandEntry &entry : found.entries) {
        const char *const end = entry.type == ZELShellCommandTree::Directory ? "/" : " ";
        candidates.append({bytesOf(entry.name) + end, bytesOf(entry.note)});
    }
    const int from = bytesOf(before).size() - bytesOf(found.prefix).size();
    m_session.output.alone([&] { m_editor.offer(from, candidates); });
    if (zelTakeFaultRecovery()) // a completion function of the host's
        m_session.output.restoreRawMode();
}

void ZELShellPrompt::echo(const QString &line)
{
    const QByteArray shown = promptText() + line.toLatin1() + "\r\n";
    m_session.output.write(shown);
}

void ZELShellPrompt::abandon()
{
    m_begun.clear();
}

QStringList ZELShellPrompt::enter(const QString &line)
{
    const QString whole = m_begun + line;
    m_begun.clear();
    if (zelHasScriptBlock(whole) ? zelIsOpenScript(whole) : zelIsOpenText(whole)) {
        m_begun = whole + QLatin1Char('\n');
        return {};
    }
    const std::optional<QString> meant = expanded(whole);
    if (!meant || meant->trimmed().isEmpty())
        return {};
    keep(*meant);
    return answerHistory(*meant) ? QStringList() : QStringList(*meant);
}

std::optional<QString> ZELShellPrompt::expanded(const QString &line)
{
    const std::optional<QString> meant = zelHistoryEvent(line, m_session.history.entries());
    if (!meant)
        m_session.output.write(QLatin1String("Error : no line in the history begins like ") + line + QLatin1Char('\n'));
    else if (*meant != line)
        m_session.output.write(*meant + QLatin1Char('\n'));
    return meant;
}

void ZELShellPrompt::keep(const QString &entry)
{
    if (!m_session.keepHistory || entry.startsWith(QLatin1Char(' ')) || zelBearsPassword(entry))
        return;
    m_session.history.add(entry);
    m_file.add(entry);
}

/// "history" and "history -c", where no command has that name.
bool ZELShellPrompt::answerHistory(const QString &line)
{
    const QStringList words = line.simplified().split(QLatin1Char(' '));
    const bool clears = words.size() == 2 && words.last() == QLatin1String("-c");
    if (words.first() != QLatin1String("history") || (words.size() > 1 && !clears))
        return false;
    const ZELCriticalSection section; // a jump over the pin would keep its node for ever
    if (m_session.resolve(words.first()))
        return false;
    if (clears) {
        m_session.history.clear();
        m_file.clear();
    } else {
        m_session.output.write(zelHistoryListing(m_session.history.entries()));
    }
    return true;
}
