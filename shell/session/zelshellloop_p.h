// SPDX-License-Identifier: MIT
#ifndef ZELSHELLLOOP_P_H
#define ZELSHELLLOOP_P_H

#include "zelarguments.h"
#include "zellineeditor_p.h"
#include "zellinelimit_p.h"
#include "zelshell_p.h"
#include "zelshellprompt_p.h"
#include "zeltelnetfilter_p.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <optional>

struct ZELShellSettings;

/**
 * What the core thread of a session does: handshake, banner, then keys, lines and completions until the session ends.
 *
 * A member of the session and not on the core thread's stack, since a kill may jump out of it anywhere.
 */
class ZELShellLoop
{
public:
    explicit ZELShellLoop(ZELShellPrivate &session);

    void run();
    /// The next byte, waiting for it; 0 once the session is to end.
    char getChar();
    /// False when no byte comes in time; true also at the end of the input.
    bool waitForInput(const QDeadlineTimer &deadline);
    /// Takes the line feed behind a carriage return, if it has come.
    void skipLineFeed();
    /// Whether a byte is there without reading.
    bool hasByte() const { return m_next < m_buffer.size(); }

    bool isTelnetClient() const { return bool(m_telnet); }

private:
    bool refill();
    bool isTelnet();
    void keys();
    bool isModern();
    void promptKeys();
    void feedPrompt(char byte);
    void runEntered();
    void feed(char byte);
    void feedPlain();
    bool isTooLong(char byte);
    void endTooLong();
    void flush();
    void recover();
    void redraw();
    void runLine(QString line);
    void runPieces(const QStringList &pieces);
    QVariant runPiece(const QString &piece);
    bool takeTypedInterrupt();
    void logStatement(const QString &statement);
    void completeWord();

    ZELShellPrivate &m_session;
    ZELLineEditor m_editor;
    QString m_begun; ///< lines of a script block that goes on
    QVariant m_result; ///< not on the stack, which an interrupt jumps over
    QByteArray m_buffer;
    int m_next = 0;
    std::unique_ptr<ZELShellPrompt> m_prompt; ///< of modern editing
    std::unique_ptr<ZELTelnetFilter> m_telnet; ///< once a telnet client has shown itself
    bool m_running = false; ///< a line of the user's: what is on the screen is its output
    ZELLineLimit m_limit;
};

#endif
