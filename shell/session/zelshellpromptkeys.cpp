// SPDX-License-Identifier: MIT
// The members of ZELShellLoop that serve sessions with modern editing.
#include "zelshellloop_p.h"

#include "zelterminal_p.h"

namespace {

const char telnetCommand = '\xff'; // in no text of UTF-8

} // namespace

bool ZELShellLoop::isModern()
{
    const bool isTold = m_session.isMain ? !qgetenv("TERM").isEmpty() : m_telnet || m_session.output.hasWindow();
    if (!m_session.modernEditing || m_session.noTerminal || (m_session.isMain && m_session.output.isPiped())
        || (m_session.needsTerminal && !isTold))
        return false;
    m_session.utf8Editing = true;
    m_session.hasPrompt = true;
    m_prompt = std::make_unique<ZELShellPrompt>(m_session);
    return true;
}

void ZELShellLoop::promptKeys()
{
    m_prompt->begin();
    zelTerminalOnResume([this] { m_running ? void() : m_prompt->showAgain(); });
    zelTerminalOnResize([this] {
        m_prompt->resize();
        if (!m_running)
            m_prompt->show();
    });
    while (!m_session.isStopping()) {
        if (m_prompt->isShown())
            feedPlain();
        // Bytes that arrived together are shown together, but each line behind its prompt.
        if (m_next >= m_buffer.size() || !m_prompt->isShown())
            m_prompt->show();
        const char byte = getChar();
        if (m_session.isStopping())
            break;
        if (zelTakeFaultRecovery())
            m_session.output.restoreRawMode();
        if (!isTooLong(byte))
            feedPrompt(byte);
    }
    m_prompt->end();
}

void ZELShellLoop::feedPrompt(char byte)
{
    switch (m_prompt->feed(byte)) {
    case ZELPromptEditor::Line:
        m_limit.restart();
        runEntered();
        break;
    case ZELPromptEditor::Complete:
        m_prompt->complete();
        break;
    case ZELPromptEditor::End:
        m_prompt->takeLine();
        m_session.output.write(QByteArray("quit\r\n"));
        runLine(QStringLiteral("quit"));
        break;
    case ZELPromptEditor::Interrupt:
        m_limit.restart();
        m_prompt->abandon();
        break;
    case ZELPromptEditor::None:
        break;
    }
}

/// The lines of a pasted block run one after the other, each shown as if it had been typed.
void ZELShellLoop::runEntered()
{
    const QStringList lines = m_prompt->takeLine().split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        if (m_session.isStopping())
            return;
        if (lines.size() > 1)
            m_prompt->echo(line);
        const QStringList entered = m_prompt->enter(line);
        for (const QString &text : entered)
            runLine(text);
    }
}

void ZELShellLoop::skipLineFeed()
{
    if (m_next < m_buffer.size() && m_buffer.at(m_next) == '\n')
        ++m_next;
}

/// Takes a telnet client's negotiation out of the bytes that have come; false for other peers.
bool ZELShellLoop::isTelnet()
{
    if (!m_telnet && (m_session.isMain || !m_session.modernEditing || m_session.noTerminal))
        return false;
    const bool begins = m_prompt ? m_buffer.contains(telnetCommand) : m_buffer.startsWith(telnetCommand);
    if (!m_telnet && begins)
        m_telnet = std::make_unique<ZELTelnetFilter>();
    if (!m_telnet || m_buffer.isEmpty())
        return false;
    m_buffer = m_telnet->filter(m_buffer);
    const QByteArray answer = m_telnet->takeAnswer();
    if (!answer.isEmpty())
        m_session.output.write(answer);
    return true;
}
