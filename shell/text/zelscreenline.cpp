// SPDX-License-Identifier: MIT
#include "zelscreenline_p.h"

#include "zelgrapheme_p.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace {

constexpr int markDistance = 64;
constexpr int unlimited = std::numeric_limits<int>::max() / 4;

QByteArray sequence(int count, char final)
{
    return count == 1 ? QByteArray("\033[") + final : "\033[" + QByteArray::number(count) + final;
}

/// The columns of a text that may hold colours.
int promptColumns(const QByteArray &prompt)
{
    QByteArray shown;
    for (int at = 0; at < prompt.size(); ++at) {
        if (prompt.at(at) != '\033') {
            shown += prompt.at(at);
            continue;
        }
        while (++at < prompt.size() && (prompt.at(at) == '[' || prompt.at(at) < 0x40)) { }
    }
    return zelColumns(shown);
}

} // namespace

void ZELScreenLine::setSize(int columns, int rows)
{
    m_rows = rows;
    const int before = std::exchange(m_columns, columns);
    if (before == columns)
        return;
    // Some terminals flow what they show anew, some do not: rather a remnant of the line than a row of others erased.
    if (m_isShown && columns > 0)
        m_at.row = std::min(m_at.row, (m_at.row * before + m_at.column) / columns);
    m_output += erase();
}

void ZELScreenLine::setPrompt(const QByteArray &prompt)
{
    if (prompt == m_prompt)
        return;
    m_output += erase();
    m_prompt = prompt;
}

void ZELScreenLine::forget()
{
    m_isShown = m_hasHint = false;
    m_at = m_end = Place();
    m_top = m_painted = 0;
    m_marks.clear();
}

QByteArray ZELScreenLine::erase()
{
    if (m_isShown) {
        move({m_top, 0});
        m_output += "\033[J";
    }
    forget();
    return std::exchange(m_output, QByteArray());
}

QByteArray ZELScreenLine::leave(const QByteArray &text)
{
    QByteArray output = paint(text, text.size(), text.size());
    if (m_at.column > 0 || m_at.row == 0) // a full row has left the cursor on the next one
        output += "\r\n";
    forget();
    return output;
}

ZELScreenLine::Place ZELScreenLine::startOfText() const
{
    const int columns = promptColumns(m_prompt);
    return m_columns == 0 ? Place{0, columns} : Place{columns / m_columns, columns % m_columns};
}

ZELScreenLine::Place ZELScreenLine::advance(Place place, const ZELGrapheme &grapheme) const
{
    if (grapheme.width == 0)
        return {place.row + 1, 0};
    const int limit = m_columns == 0 ? unlimited : m_columns;
    const int width = std::min(grapheme.width, limit);
    if (place.column + width > limit)
        place = {place.row + 1, 0};
    place.column += width;
    return !grapheme.isPlain && place.column == limit ? Place{place.row + 1, 0} : place;
}

/// Where the cursor stands when nothing follows.
ZELScreenLine::Place ZELScreenLine::rest(Place place) const
{
    return m_columns != 0 && place.column >= m_columns ? Place{place.row + 1, 0} : place;
}

ZELScreenLine::Place ZELScreenLine::placeAt(const QByteArray &text, int offset)
{
    while (!m_marks.isEmpty() && m_marks.last().offset > offset)
        m_marks.removeLast();
    Mark mark = m_marks.isEmpty() ? Mark{0, startOfText()} : m_marks.last();
    int marked = mark.offset;
    while (mark.offset < offset) {
        const ZELGrapheme grapheme = zelGraphemeAt(text, mark.offset);
        mark = {mark.offset + grapheme.length, advance(mark.place, grapheme)};
        if (mark.offset - marked >= markDistance && mark.offset <= offset) {
            m_marks.append(mark);
            marked = mark.offset;
        }
    }
    return mark.place;
}

ZELScreenLine::Place ZELScreenLine::cursorPlace(const QByteArray &text, int offset)
{
    const Place place = placeAt(text, offset);
    if (offset == text.size())
        return rest(place);
    const ZELGrapheme next = zelGraphemeAt(text, offset);
    const int limit = m_columns == 0 ? unlimited : m_columns;
    return next.width > 0 && place.column + std::min(next.width, limit) > limit ? Place{place.row + 1, 0} : rest(place);
}

int ZELScreenLine::firstOffsetOf(const QByteArray &text, int row)
{
    while (!m_marks.isEmpty() && m_marks.last().place.row >= row)
        m_marks.removeLast();
    int offset = m_marks.isEmpty() ? 0 : m_marks.last().offset;
    Place place = m_marks.isEmpty() ? startOfText() : m_marks.last().place;
    while (offset < text.size() && place.row < row) {
        const ZELGrapheme grapheme = zelGraphemeAt(text, offset);
        const Place next = advance(place, grapheme);
        if (next.row >= row && next.column > 0)
            return offset; // the first one on that row
        offset += grapheme.length;
        place = next;
    }
    return offset;
}

QByteArray ZELScreenLine::paint(const QByteArray &text, int cursor, int changed, const QByteArray &hint)
{
    int from = std::min({changed, m_painted, text.size()});
    if (!std::exchange(m_isShown, true)) {
        m_output += m_prompt;
        from = 0;
        m_at = m_end = startOfText();
        if (m_at.column == 0 && m_at.row > 0)
            m_output += " \r";
    }
    if (m_marks.size() > 0 && m_marks.last().offset > from)
        placeAt(text, from);
    const Place target = cursorPlace(text, cursor);
    const int height = m_rows == 0 ? unlimited : m_rows;
    if (m_top > 0) {
        const int fitting = std::max(0, cursorPlace(text, text.size()).row - height + 1);
        if (target.row < m_top || fitting == 0) {
            scrollBackTo(text, std::min(target.row, fitting));
            from = m_painted;
        }
    }
    if (cursorPlace(text, from).row < m_top)
        from = firstOffsetOf(text, m_top);
    if (from < text.size() || m_painted != text.size() || m_hasHint || !hint.isEmpty())
        repaint(text, from, std::max(m_top, target.row - height + 1) + height - 1, hint);
    m_top = std::max(m_top, m_end.row - height + 1);
    move(target);
    return std::exchange(m_output, QByteArray());
}

/// The rows from \a row on are to be shown on a screen that shows later ones only.
void ZELScreenLine::scrollBackTo(const QByteArray &text, int row)
{
    m_output += "\033[H\033[J";
    m_top = row;
    m_at = m_end = {row, 0};
    m_painted = firstOffsetOf(text, row);
    if (row > startOfText().row)
        return;
    m_top = 0;
    m_painted = 0;
    m_output += m_prompt;
    m_at = m_end = startOfText();
    if (m_at.column == 0 && m_at.row > 0)
        m_output += " \r";
}

void ZELScreenLine::repaint(const QByteArray &text, int from, int lastRow, const QByteArray &hint)
{
    Place place = placeAt(text, from);
    move(rest(place));
    int at = from;
    if (m_at.row > place.row) {
        place = m_at;
        at += text.mid(at, 1) == "\n" ? 1 : 0; // behind a full row the cursor is there already
    }
    while (at < text.size()) {
        const ZELGrapheme grapheme = zelGraphemeAt(text, at);
        const Place next = advance(place, grapheme);
        if (next.row > lastRow)
            break;
        put(text, at, grapheme, &place);
        at += grapheme.length;
    }
    m_painted = at;
    if (at == text.size()) {
        m_hasHint = false;
        putHint(hint, &place);
        if (m_columns != 0 && place.column >= m_columns)
            m_output += " \r";
    }
    m_at = rest(place);
    clearBehind(m_at);
}

void ZELScreenLine::put(const QByteArray &text, int at, const ZELGrapheme &grapheme, Place *place)
{
    const Place next = advance(*place, grapheme);
    const bool hasRoom = m_columns == 0 || place->column < m_columns;
    if (grapheme.width == 0) {
        m_output += hasRoom ? "\033[K\r\n" : "\r\n";
    } else {
        // A wide character that does not fit leaves the last column as it was, and terminals differ about the rest.
        if (hasRoom && next.row > place->row && next.column > 0)
            m_output += "\033[K\r\n";
        m_output += zelShownGrapheme(text, at, grapheme);
        if (!grapheme.isPlain)
            m_output += next.column == 0 ? QByteArrayLiteral("\r\n") : sequence(next.column + 1, 'G');
    }
    *place = next;
}

void ZELScreenLine::putHint(const QByteArray &hint, Place *place)
{
    QByteArray shown;
    const int room = m_columns == 0 ? 0 : m_columns - 1;
    for (int at = 0, length = 0; at < hint.size(); at += length) {
        const ZELGrapheme grapheme = zelGraphemeAt(hint, at);
        length = grapheme.length;
        if (!grapheme.isPlain || place->column + grapheme.width > room)
            break;
        shown += zelShownGrapheme(hint, at, grapheme);
        place->column += grapheme.width;
    }
    if (shown.isEmpty())
        return;
    m_hasHint = true;
    m_output += "\033[90m" + shown + "\033[39m";
}

/// Clears what stood behind the new end.
void ZELScreenLine::clearBehind(Place end)
{
    if (m_end.row > end.row)
        m_output += "\033[J";
    else if (m_end.row == end.row && m_end.column > end.column)
        m_output += "\033[K";
    m_end = end;
}

void ZELScreenLine::move(Place to)
{
    if (to.row < m_at.row)
        m_output += sequence(m_at.row - to.row, 'A');
    else if (to.row > m_at.row)
        m_output += sequence(to.row - m_at.row, 'B');
    if (to.column == 0 && m_at.column != 0)
        m_output += '\r';
    else if (to.column > m_at.column)
        m_output += sequence(to.column - m_at.column, 'C');
    else if (to.column < m_at.column)
        m_output += m_at.column - to.column < 4 ? QByteArray(m_at.column - to.column, '\b')
                                                : sequence(m_at.column - to.column, 'D');
    m_at = to;
}
