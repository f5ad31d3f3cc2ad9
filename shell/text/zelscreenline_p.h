// SPDX-License-Identifier: MIT
#ifndef ZELSCREENLINE_P_H
#define ZELSCREENLINE_P_H

#include <QByteArray>
#include <QVector>

struct ZELGrapheme;

/**
 * How a prompt and a line stand on a terminal, and the bytes that bring the screen from one state to the next.
 *
 * Places are counted in rows below the prompt's first row and in columns; the terminal's own row is never needed. Only
 * what has changed is painted. A full row leaves a terminal's cursor waiting at the margin: what follows wraps by
 * itself, and where nothing follows a blank takes the cursor to the next row. Characters about whose width terminals
 * differ are followed by an absolute column. Sequences are those of ECMA-48 that xterm, rxvt, linux and screen share.
 *
 * Pure: writes nothing by itself.
 */
class ZELScreenLine
{
public:
    /// The size of the terminal; 0 for what is not known. A changed width has the next paint() show everything anew.
    void setSize(int columns, int rows);
    int columns() const { return m_columns; }
    int rows() const { return m_rows; }
    /// The prompt's last line; may hold colours.
    void setPrompt(const QByteArray &prompt);
    const QByteArray &prompt() const { return m_prompt; }

    /**
     * Shows \a text with the cursor before byte \a cursor, where bytes from \a changed on may differ from what was
     * painted last, and behind it as much of \a hint as fits on the row.
     */
    QByteArray paint(const QByteArray &text, int cursor, int changed, const QByteArray &hint = QByteArray());
    /// Takes prompt and line off the screen; the cursor is where the prompt began.
    QByteArray erase();
    /// Moves behind the line and to a row of its own, where output may follow.
    QByteArray leave(const QByteArray &text);
    /// Nothing of it is on the screen any more; the cursor is at the beginning of a row.
    void forget();

private:
    struct Place
    {
        int row = 0;
        int column = 0;
    };
    struct Mark
    {
        int offset;
        Place place;
    };

    Place advance(Place place, const ZELGrapheme &grapheme) const;
    Place rest(Place place) const;
    Place placeAt(const QByteArray &text, int offset);
    Place cursorPlace(const QByteArray &text, int offset);
    Place startOfText() const;
    int firstOffsetOf(const QByteArray &text, int row);
    void repaint(const QByteArray &text, int from, int lastRow, const QByteArray &hint);
    void put(const QByteArray &text, int at, const ZELGrapheme &grapheme, Place *place);
    void putHint(const QByteArray &hint, Place *place);
    void scrollBackTo(const QByteArray &text, int row);
    void move(Place to);
    void clearBehind(Place end);

    QByteArray m_prompt;
    int m_columns = 0;
    int m_rows = 0;
    bool m_isShown = false; ///< the prompt stands
    bool m_hasHint = false;
    Place m_at; ///< the terminal's cursor
    Place m_end; ///< behind everything that was painted
    int m_top = 0; ///< rows above this one have left the screen
    int m_painted = 0; ///< bytes of the text that are on the screen
    QVector<Mark> m_marks; ///< places on the way through the text, so that none is counted from its beginning
    QByteArray m_output;
};

#endif
