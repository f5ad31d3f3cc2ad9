// SPDX-License-Identifier: MIT
#ifndef ZELLINEEDITOR_P_H
#define ZELLINEEDITOR_P_H

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <mutex>
#include <optional>

/**
 * The lines entered in one session, and the place in them while browsing.
 *
 * Thread-safe: the editor browses on the session's thread while background statements add their lines on others.
 * Every add() ends the browsing, so the next Up shows the line added last.
 */
class ZELHistory
{
public:
    /// Appends \a line as the newest entry; an equal earlier entry goes away. The oldest ones beyond limit() go too.
    void add(const QString &line);
    /// All entries, the oldest first.
    QStringList entries() const;
    void clear();
    int limit() const;
    /// Keeps at most \a entries lines, 1000 by default; 0 keeps none.
    void setLimit(int entries);

    /**
     * One step back: writes the earlier entry to \a line and returns true, false at the oldest one or when empty.
     * Leaving the newest place remembers \a current, the line being typed, as the draft.
     */
    bool stepBack(const QString &current, QString *line);
    /// One step forward: a later entry, or the draft behind the newest one; false when nothing is being browsed.
    bool stepForward(QString *line);

private:
    void trim();

    mutable std::mutex m_mutex;
    QStringList m_entries;
    QString m_draft;
    int m_index = 0; ///< equals the number of entries when nothing is being browsed
    int m_limit = 1000;
};

/**
 * The line being typed: bytes in, an edited line and the bytes that show the edit on a VT100-like terminal out.
 *
 * Knows no stream: what is to be shown gathers until takeOutput(), so that one write echoes all that arrived
 * together. Bytes are kept as they come, one Latin-1 character each; all 256 values are text except line feed, tab,
 * escape and the two backspaces. Escape sequences may be torn anywhere; those without a meaning here are swallowed
 * whole. Typing at the end of the line costs the same however long it is; a run of edits inside the line rewrites its
 * rest once. What gathers stays below a few times the line and what was fed: beyond that only what came of it is shown.
 *
 * Not thread-safe: it belongs to the thread that reads the session's bytes. The history may be shared.
 *
 *     for (char byte : received)
 *         switch (editor.feed(byte)) {
 *         case ZELLineEditor::Line: write(editor.takeOutput()); run(editor.takeLine()); break;
 *         case ZELLineEditor::Tab: complete(editor); break;
 *         case ZELLineEditor::None: break;
 *         }
 *     write(editor.takeOutput());
 */
class ZELLineEditor
{
public:
    enum Event {
        None, ///< nothing to do beyond showing the output
        Line, ///< a line feed came: takeLine(), which may be empty
        Tab, ///< a completion is wanted; never without a terminal, on an empty line or after a blank
    };

    /// \a history is not owned and may be null: then Up and Down do nothing.
    explicit ZELLineEditor(ZELHistory *history = nullptr);

    /// Without a terminal nothing is shown, and Tab, Escape and Backspace are ignored. On at first.
    void setTerminal(bool on);
    bool isTerminal() const { return m_terminal; }
    /**
     * Whether a UTF-8 sequence counts as one character for the cursor, Backspace and completion; off at first. An
     * incomplete sequence stays out of the line and of the output until its last byte, or is taken as single bytes
     * when something else follows. The line keeps its bytes either way.
     */
    void setUtf8(bool on);
    bool isUtf8() const { return m_utf8; }

    /// Takes one byte.
    Event feed(char byte);
    /// Takes the printable ASCII at the beginning of \a bytes, as feed() would take it byte by byte; how many that
    /// were. 0 where that is no simple matter.
    int feedPlain(const char *bytes, int length);

    /// What is to be written since the last call. Empty without a terminal.
    QByteArray takeOutput();
    /// The line as it stands, one Latin-1 character for each byte.
    QString line() const;
    /// The same, and the editor starts over with an empty line.
    QString takeLine();
    /// The line as the user sees it, decoded where UTF-8 counts: what the completer gets.
    QString text() const;
    bool isEmpty() const { return m_line.isEmpty(); }
    /// The cursor's place: the number of bytes before it.
    int cursor() const { return m_cursor; }

    /// Adds \a text behind the end of the line, shows it, and leaves the cursor there.
    void append(const QString &text);
    /// Shows the line again behind a prompt that was just written, with the cursor at its place.
    void redraw();
    /// \a text as bytes for this terminal: UTF-8 where it counts, else Latin-1.
    QByteArray encode(const QString &text) const;

private:
    enum class State { Text, Escape, Bracket, Three, Parameters, Single };

    Event feedText(char byte);
    Event feedControl(char byte);
    Event feedBracket(char byte);
    Event feedThree(char byte);
    Event feedParameters(char byte);
    Event feedSingle(char byte);
    bool holdBack(char byte);
    void releaseHeld();
    void insert(const char *character, int length);
    void eraseBack();
    void stepLeft();
    void stepRight();
    void showHistory(bool back);
    void moveToEnd();
    void showRest();
    bool spend(int bytes, int blanks);
    void settle();
    int width(const QByteArray &line, int from, int to) const;
    int columns(int from, int to) const { return width(m_line, from, to); }
    void show(const QByteArray &bytes);
    void repeat(const char *sequence, int times);

    ZELHistory *m_history;
    QByteArray m_line;
    QByteArray m_held; ///< the first bytes of a UTF-8 sequence
    QByteArray m_output;
    int m_cursor = 0;
    State m_state = State::Text;
    bool m_terminal = true;
    bool m_utf8 = false;

    bool m_restIsDue = false; ///< what stands behind the cursor is still to be rewritten
    int m_surplus = 0; ///< by how many columns the rest on the screen is longer than it should be
    int m_refreshed = 0; ///< bytes that were rewritten since the output was taken
    struct Late
    {
        QByteArray shown; ///< on the screen before its cursor
        int rest = 0; ///< columns of what is on the screen behind that
    };
    std::optional<Late> m_late;
};

#endif
