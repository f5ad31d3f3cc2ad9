// SPDX-License-Identifier: MIT
#include "zellinebuffer_p.h"

#include "zelgrapheme_p.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int keptKills = 10;
constexpr int keptEdits = 500;
constexpr int keptUndoBytes = 1 << 20;

bool isBlank(char byte)
{
    return byte == ' ' || byte == '\t' || byte == '\n';
}

} // namespace

void ZELLineBuffer::insert(const QByteArray &text, bool typed)
{
    remember({m_cursor, QByteArray(), text, m_cursor}, typed);
    change(m_cursor, 0, text);
    m_cursor += text.size();
    settle();
}

void ZELLineBuffer::replace(const QByteArray &text)
{
    replace(0, m_text.size(), text);
}

void ZELLineBuffer::replace(int from, int length, const QByteArray &text)
{
    remember({from, m_text.mid(from, length), text, m_cursor}, false);
    change(from, length, text);
    m_cursor = from + text.size();
    settle();
}

QByteArray ZELLineBuffer::take()
{
    const QByteArray taken = std::exchange(m_text, QByteArray());
    m_undo = QVector<Edit>();
    m_cursor = m_changed = m_undoBytes = 0;
    m_typing = false;
    m_yanked = -1;
    return taken;
}

int ZELLineBuffer::takeChange()
{
    return std::exchange(m_changed, m_text.size());
}

void ZELLineBuffer::left()
{
    m_cursor = zelGraphemeBefore(m_text, m_cursor);
}

void ZELLineBuffer::right()
{
    if (!isAtEnd())
        m_cursor += zelGraphemeAt(m_text, m_cursor).length;
}

int ZELLineBuffer::wordLeft() const
{
    int at = m_cursor;
    for (bool inWord = false; at > 0;) {
        const int before = zelGraphemeBefore(m_text, at);
        const bool isWord = zelIsWordAt(m_text, before);
        if (inWord && !isWord)
            break;
        inWord = isWord;
        at = before;
    }
    return at;
}

int ZELLineBuffer::wordRight() const
{
    int at = m_cursor;
    for (bool inWord = false; at < m_text.size();) {
        const bool isWord = zelIsWordAt(m_text, at);
        if (inWord && !isWord)
            break;
        inWord = isWord;
        at += zelGraphemeAt(m_text, at).length;
    }
    return at;
}

int ZELLineBuffer::blankWordLeft() const
{
    int at = m_cursor;
    while (at > 0 && isBlank(m_text.at(at - 1)))
        --at;
    while (at > 0 && !isBlank(m_text.at(at - 1)))
        --at;
    return at;
}

bool ZELLineBuffer::eraseBack()
{
    if (m_cursor == 0)
        return false;
    const int from = zelGraphemeBefore(m_text, m_cursor);
    replace(from, m_cursor - from, QByteArray());
    return true;
}

bool ZELLineBuffer::eraseForward()
{
    if (isAtEnd())
        return false;
    replace(m_cursor, zelGraphemeAt(m_text, m_cursor).length, QByteArray());
    return true;
}

void ZELLineBuffer::transpose()
{
    const int at = isAtEnd() ? zelGraphemeBefore(m_text, m_cursor) : m_cursor;
    if (at == 0)
        return;
    const int before = zelGraphemeBefore(m_text, at);
    const int end = at + zelGraphemeAt(m_text, at).length;
    replace(before, end - before, m_text.mid(at, end - at) + m_text.mid(before, at - before));
}

void ZELLineBuffer::killTo(int place, bool joins)
{
    const int from = std::min(place, m_cursor);
    const QByteArray piece = m_text.mid(from, std::max(place, m_cursor) - from);
    if (piece.isEmpty())
        return;
    if (joins && !m_kills.isEmpty())
        m_kills.last() = place < m_cursor ? piece + m_kills.last() : m_kills.last() + piece;
    else
        m_kills.append(piece);
    if (m_kills.size() > keptKills)
        m_kills.removeFirst();
    replace(from, piece.size(), QByteArray());
}

bool ZELLineBuffer::yank()
{
    if (m_kills.isEmpty())
        return false;
    m_yankAt = m_cursor;
    insert(m_kills.last());
    m_yanked = m_kills.size() - 1;
    return true;
}

bool ZELLineBuffer::yankEarlier()
{
    if (m_yanked < 0)
        return false;
    const int earlier = (m_yanked + m_kills.size() - 1) % m_kills.size();
    replace(m_yankAt, m_cursor - m_yankAt, m_kills.at(earlier));
    m_yanked = earlier;
    return true;
}

bool ZELLineBuffer::undo()
{
    if (m_undo.isEmpty())
        return false;
    const Edit edit = m_undo.takeLast();
    m_undoBytes -= edit.removed.size() + edit.inserted.size();
    change(edit.at, edit.inserted.size(), edit.removed);
    m_cursor = edit.cursor;
    settle();
    m_typing = false;
    return true;
}

void ZELLineBuffer::change(int at, int length, const QByteArray &text)
{
    // What comes may join the character before it.
    m_changed = std::min(m_changed, zelGraphemeBefore(m_text, at));
    m_yanked = -1;
    if (length == 0 && at == m_text.size())
        m_text.append(text);
    else
        m_text.replace(at, length, text);
}

/// Moves a cursor behind what has joined the character before it.
void ZELLineBuffer::settle()
{
    if (isAtEnd())
        return;
    int at = zelGraphemeStart(m_text, m_cursor);
    while (at < m_cursor)
        at += zelGraphemeAt(m_text, at).length;
    m_cursor = at;
}

void ZELLineBuffer::remember(const Edit &edit, bool typed)
{
    m_undoBytes += edit.removed.size() + edit.inserted.size();
    if (typed && extendsTyping(edit))
        m_undo.last().inserted += edit.inserted;
    else
        m_undo.append(edit);
    m_typing = typed;
    while (m_undo.size() > keptEdits || (m_undoBytes > keptUndoBytes && !m_undo.isEmpty())) {
        m_undoBytes -= m_undo.first().removed.size() + m_undo.first().inserted.size();
        m_undo.removeFirst();
    }
}

/// A word and the blanks behind it are one step back.
bool ZELLineBuffer::extendsTyping(const Edit &edit) const
{
    if (!m_typing || m_undo.isEmpty())
        return false;
    const QByteArray &before = m_undo.last().inserted;
    return m_undo.last().at + before.size() == edit.at && !(isBlank(before.back()) && !isBlank(edit.inserted.front()));
}
