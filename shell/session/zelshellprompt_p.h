// SPDX-License-Identifier: MIT
#ifndef ZELSHELLPROMPT_P_H
#define ZELSHELLPROMPT_P_H

#include "zelhistoryfile_p.h"
#include "zelprompteditor_p.h"

#include <QStringList>
#include <optional>

class ZELShellPrivate;

/**
 * The line of a session with modern editing, on its screen: the editor, what other threads write above it, the prompt,
 * completion and the history with its file.
 *
 * A member of the session's loop and not on the core thread's stack, since a kill may jump out of it anywhere. Used by
 * the core thread; the editor is shared with whoever writes to the session's stream, one at a time.
 */
class ZELShellPrompt
{
public:
    explicit ZELShellPrompt(ZELShellPrivate &session);
    ~ZELShellPrompt();

    /// Reads the history and has the first prompt shown by the next show().
    void begin();
    /// Leaves the screen and the stream to others.
    void end();
    /// Takes the printable ASCII at the beginning; how many bytes that were.
    int feedPlain(const char *bytes, int length);
    ZELPromptEditor::Event feed(char byte);
    /// Brings the screen up to date.
    void show();
    bool isShown() const { return m_isShown; }
    /// Shows everything anew below what somebody else has left on the screen.
    void showAgain();
    /// Asks the terminal for its size.
    void resize();
    /// Shows candidates for the word before the cursor.
    void complete();

    /// Takes the line, one Latin-1 character for each byte, off the editor; the screen is left to its answer.
    QString takeLine();
    /// The statements that are to run: nothing while the line goes on, or when it was answered here.
    QStringList enter(const QString &line);
    /// Forgets the lines that wait for their end.
    void abandon();
    /// Shows a line of a block that runs by itself, as if it had been typed.
    void echo(const QString &line);

private:
    QByteArray compose(const QByteArray &bytes);
    QByteArray promptText();
    void leave();
    void keep(const QString &entry);
    bool answerHistory(const QString &line);
    std::optional<QString> expanded(const QString &line);

    ZELShellPrivate &m_session;
    ZELPromptEditor m_editor; ///< used with the output's gate held
    ZELHistoryFile m_file;
    QString m_begun; ///< lines that go on
    bool m_isShown = false; ///< written with the gate held, by the core thread: the prompt stands on the screen
    char m_last = 0; ///< with the gate held: of what others wrote
    bool m_isAtRowStart = true; ///< with the gate held: what was written last ended its row
};

#endif
