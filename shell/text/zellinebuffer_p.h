// SPDX-License-Identifier: MIT
#ifndef ZELLINEBUFFER_P_H
#define ZELLINEBUFFER_P_H

#include <QByteArray>
#include <QVector>

/**
 * A line of UTF-8 bytes with a cursor, what was cut out of it, and the way back: readline's editing without a screen.
 *
 * The cursor stands between two characters as a person sees them. Pure: no terminal, no thread. Cutting in a row
 * gathers in one piece. Typing at the end costs the same however long the line is.
 */
class ZELLineBuffer
{
public:
    const QByteArray &text() const { return m_text; }
    int cursor() const { return m_cursor; }
    bool isEmpty() const { return m_text.isEmpty(); }
    bool isAtEnd() const { return m_cursor == m_text.size(); }

    /// Inserts text before the cursor; typed characters in a row are undone word by word.
    void insert(const QByteArray &text, bool typed = false);
    /// Puts another text in the line's place, with the cursor at its end.
    void replace(const QByteArray &text);
    /// Puts \a text in the place of \a length bytes at \a from, with the cursor behind it.
    void replace(int from, int length, const QByteArray &text);
    /// The text, and the line starts over; what was cut stays.
    QByteArray take();

    void moveTo(int place) { m_cursor = place; }
    void left();
    void right();
    void home() { m_cursor = 0; }
    void end() { m_cursor = m_text.size(); }
    int wordLeft() const;
    int wordRight() const;
    int blankWordLeft() const;

    bool eraseBack();
    bool eraseForward();
    /// Swaps the characters around the cursor, at the end the last two.
    void transpose();

    /// Cuts from the cursor to \a place. \a joins: the key before this one cut, too.
    void killTo(int place, bool joins);
    bool yank();
    /// After yank(): puts the piece cut before in its place.
    bool yankEarlier();
    bool undo();

    /// The first byte that may have changed since the last call; the text's size when none has.
    int takeChange();

private:
    struct Edit
    {
        int at;
        QByteArray removed;
        QByteArray inserted;
        int cursor; ///< before the edit
    };

    void change(int at, int length, const QByteArray &text);
    void settle();
    void remember(const Edit &edit, bool typed);
    bool extendsTyping(const Edit &edit) const;

    QByteArray m_text;
    int m_cursor = 0;
    int m_changed = 0;
    QVector<Edit> m_undo;
    int m_undoBytes = 0;
    bool m_typing = false; ///< the last edit was typed
    QVector<QByteArray> m_kills; ///< the newest last
    int m_yanked = -1; ///< which of them the last yank took
    int m_yankAt = 0;
};

#endif
