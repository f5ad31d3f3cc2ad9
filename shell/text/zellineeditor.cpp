// SPDX-License-Identifier: MIT
#include "zellineeditor_p.h"

#include "zelgrapheme_p.h"
#include "zelguard_p.h"
#include "zelutf8_p.h"

#include <algorithm>
#include <utility>

namespace {

/// Locks the history where a kill has to wait: jobs add to it on threads that may be abandoned.
struct Lock
{
    explicit Lock(std::mutex &mutex)
        : guard(mutex)
    {
    }
    ZELCriticalSection section;
    std::lock_guard<std::mutex> guard;
};

constexpr char leftShift[] = "\033[D";
constexpr char rightShift[] = "\033[C";
constexpr char deleteOne[] = "\b \b";

// What rewriting the rest of a line may take before the screen is left as it is until the output is taken.
constexpr int largestRefresh = 4096;

bool isFinal(char byte)
{
    return byte >= 0x40 && byte <= 0x7e;
}

} // namespace

void ZELHistory::add(const QString &line)
{
    Lock lock(m_mutex);
    const int earlier = m_entries.lastIndexOf(line);
    if (earlier >= 0)
        m_entries.removeAt(earlier);
    m_entries.append(line);
    trim();
}

QStringList ZELHistory::entries() const
{
    Lock lock(m_mutex);
    return m_entries;
}

void ZELHistory::clear()
{
    Lock lock(m_mutex);
    m_entries.clear();
    m_draft.clear();
    m_index = 0;
}

int ZELHistory::limit() const
{
    Lock lock(m_mutex);
    return m_limit;
}

void ZELHistory::setLimit(int entries)
{
    Lock lock(m_mutex);
    m_limit = std::max(0, entries);
    trim();
}

void ZELHistory::trim()
{
    if (m_entries.size() > m_limit)
        m_entries.erase(m_entries.begin(), m_entries.end() - m_limit);
    m_index = m_entries.size();
}

bool ZELHistory::stepBack(const QString &current, QString *line)
{
    Lock lock(m_mutex);
    if (m_index == 0)
        return false;
    if (m_index == m_entries.size())
        m_draft = current;
    *line = m_entries.at(--m_index);
    return true;
}

bool ZELHistory::stepForward(QString *line)
{
    Lock lock(m_mutex);
    if (m_index >= m_entries.size())
        return false;
    *line = ++m_index == m_entries.size() ? m_draft : m_entries.at(m_index);
    return true;
}

ZELLineEditor::ZELLineEditor(ZELHistory *history)
    : m_history(history)
{
}

void ZELLineEditor::setTerminal(bool on)
{
    releaseHeld();
    m_terminal = on;
    m_state = State::Text;
}

void ZELLineEditor::setUtf8(bool on)
{
    releaseHeld();
    m_utf8 = on;
}

ZELLineEditor::Event ZELLineEditor::feed(char byte)
{
    switch (m_state) {
    case State::Text:
        return feedText(byte);
    case State::Escape:
        m_state = byte == '[' ? State::Bracket : byte == 'O' ? State::Single : State::Text;
        return None;
    case State::Bracket:
        return feedBracket(byte);
    case State::Three:
        return feedThree(byte);
    case State::Parameters:
        return feedParameters(byte);
    case State::Single:
        return feedSingle(byte);
    }
    return None;
}

ZELLineEditor::Event ZELLineEditor::feedText(char byte)
{
    if (byte == '\n' || byte == '\t' || byte == 27 || byte == 127 || byte == '\b')
        return feedControl(byte);
    if (!holdBack(byte))
        insert(&byte, 1);
    return None;
}

int ZELLineEditor::feedPlain(const char *bytes, int length)
{
    if (m_state != State::Text || !m_held.isEmpty())
        return 0;
    const char *const end = std::find_if_not(bytes, bytes + length, [](char c) { return c >= ' ' && c <= '~'; });
    if (end != bytes)
        insert(bytes, int(end - bytes));
    return int(end - bytes);
}

ZELLineEditor::Event ZELLineEditor::feedControl(char byte)
{
    releaseHeld();
    if (byte == '\n') {
        settle();
        show(QByteArrayLiteral("\n"));
        return Line;
    }
    if (!m_terminal)
        return None;
    if (byte == '\t')
        return m_line.isEmpty() || m_line.endsWith(' ') ? None : Tab;
    if (byte == 27)
        m_state = State::Escape;
    else
        eraseBack();
    return None;
}

ZELLineEditor::Event ZELLineEditor::feedBracket(char byte)
{
    m_state = State::Text;
    if (byte == 'A' || byte == 'B')
        showHistory(byte == 'A');
    else if (byte == 'C')
        stepRight();
    else if (byte == 'D')
        stepLeft();
    else if (byte == '3')
        m_state = State::Three;
    else if (byte >= 0x20 && byte <= 0x3f)
        m_state = State::Parameters;
    return None;
}

ZELLineEditor::Event ZELLineEditor::feedThree(char byte)
{
    m_state = byte >= 0x20 && byte <= 0x3f ? State::Parameters : State::Text;
    // The delete key takes the character before the cursor, deliberately.
    if (byte == '~')
        eraseBack();
    return None;
}

ZELLineEditor::Event ZELLineEditor::feedParameters(char byte)
{
    if (byte >= 0x20 && byte <= 0x3f)
        return None;
    // A control byte or a foreign one ends a broken sequence and counts for itself: Enter is never lost to noise.
    return feedSingle(byte);
}

ZELLineEditor::Event ZELLineEditor::feedSingle(char byte)
{
    m_state = State::Text;
    return isFinal(byte) ? None : feedText(byte);
}

bool ZELLineEditor::holdBack(char byte)
{
    if (!m_utf8 || !m_terminal || (m_held.isEmpty() && static_cast<uchar>(byte) < 0x80))
        return false;
    m_held += byte;
    const int length = zelSequenceLength(m_held.constData(), m_held.size());
    if (length == 0) {
        m_held.chop(1);
        const bool begunBefore = !m_held.isEmpty();
        releaseHeld();
        return begunBefore && holdBack(byte);
    }
    if (length > 0)
        insert(std::exchange(m_held, QByteArray()).constData(), length);
    return true;
}

void ZELLineEditor::releaseHeld()
{
    const QByteArray held = std::exchange(m_held, QByteArray());
    for (const char byte : held)
        insert(&byte, 1);
}

QByteArray ZELLineEditor::takeOutput()
{
    settle();
    m_refreshed = 0;
    return std::exchange(m_output, QByteArray());
}

QString ZELLineEditor::line() const
{
    // By length, because a byte array alone is converted up to its first NUL only.
    return QString::fromLatin1(m_line.constData(), m_line.size());
}

QString ZELLineEditor::takeLine()
{
    settle();
    const QString taken = line();
    m_line = QByteArray();
    m_cursor = 0;
    return taken;
}

QString ZELLineEditor::text() const
{
    return m_utf8 ? QString::fromUtf8(m_line.constData(), m_line.size()) : line();
}

QByteArray ZELLineEditor::encode(const QString &text) const
{
    return m_utf8 ? text.toUtf8() : text.toLatin1();
}

void ZELLineEditor::append(const QString &text)
{
    const QByteArray bytes = encode(text);
    settle();
    moveToEnd();
    m_line += bytes;
    m_cursor = m_line.size();
    show(bytes);
}

void ZELLineEditor::redraw()
{
    settle();
    show(m_line);
    repeat(leftShift, columns(m_cursor, m_line.size()));
}

void ZELLineEditor::insert(const char *character, int length)
{
    if (m_cursor == m_line.size()) {
        m_line.append(character, length);
        m_cursor = m_line.size();
        show(QByteArray::fromRawData(character, length));
        return;
    }
    m_line.insert(m_cursor, character, length);
    show(QByteArray::fromRawData(character, length));
    m_cursor += length;
    m_restIsDue = true;
    m_surplus -= columns(m_cursor - length, m_cursor);
}

void ZELLineEditor::eraseBack()
{
    if (m_cursor == 0)
        return;
    const int length = zelPreviousLength(m_line, m_cursor);
    const int width = columns(m_cursor - length, m_cursor);
    repeat(deleteOne, width);
    m_cursor -= length;
    m_line.remove(m_cursor, length);
    m_restIsDue = true;
    m_surplus += width;
    if (m_cursor == m_line.size())
        showRest();
}

/// A run of insertions or deletions inside the line rewrites the rest behind it once.
void ZELLineEditor::showRest()
{
    if (!std::exchange(m_restIsDue, false))
        return;
    const int blanks = std::max(0, std::exchange(m_surplus, 0));
    const QByteArray rest = m_line.mid(m_cursor);
    if (!spend(rest.size(), blanks))
        return;
    show(rest + QByteArray(blanks, ' '));
    repeat(leftShift, columns(m_cursor, m_line.size()) + blanks);
}

/// False when that much more rewriting is too much since the output was taken: from now on the screen stays as it is,
/// right up to the cursor, until settle() shows what has come of it.
bool ZELLineEditor::spend(int bytes, int blanks)
{
    if (m_late)
        return false;
    const bool isFirst = m_refreshed == 0;
    m_refreshed += 4 * bytes; // with the steps back
    if (m_terminal && !isFirst && bytes > 0 && m_refreshed > largestRefresh)
        m_late = Late{m_line.left(m_cursor), columns(m_cursor, m_line.size()) + blanks};
    return !m_late;
}

void ZELLineEditor::settle()
{
    showRest();
    const std::optional<Late> late = std::exchange(m_late, std::nullopt);
    if (!late)
        return;
    const QByteArray &shown = late->shown;
    const auto differs = std::mismatch(shown.cbegin(), shown.cend(), m_line.cbegin(), m_line.cend());
    int common = int(differs.first - shown.cbegin());
    while (m_utf8 && common > 0 && common < m_line.size() && (m_line.at(common) & 0xc0) == 0x80)
        --common;
    const int back = width(shown, common, shown.size());
    const int blanks = std::max(0, back + late->rest - columns(common, m_line.size()));
    repeat(leftShift, back);
    show(m_line.mid(common) + QByteArray(blanks, ' '));
    repeat(leftShift, columns(m_cursor, m_line.size()) + blanks);
}

void ZELLineEditor::stepLeft()
{
    if (m_cursor == 0)
        return;
    showRest();
    const int length = zelPreviousLength(m_line, m_cursor);
    repeat(leftShift, columns(m_cursor - length, m_cursor));
    m_cursor -= length;
}

void ZELLineEditor::stepRight()
{
    if (m_cursor == m_line.size())
        return;
    showRest();
    const int length = zelNextLength(m_line, m_cursor);
    repeat(rightShift, columns(m_cursor, m_cursor + length));
    m_cursor += length;
}

void ZELLineEditor::showHistory(bool back)
{
    QString entry;
    if (!m_history || !(back ? m_history->stepBack(line(), &entry) : m_history->stepForward(&entry)))
        return;
    showRest();
    spend(m_line.size() + entry.size(), 0);
    moveToEnd();
    repeat(deleteOne, m_late ? 0 : columns(0, m_line.size()));
    // Entries are lines of bytes; only one that a program added may hold more.
    const bool bytes = std::all_of(entry.cbegin(), entry.cend(), [](QChar c) { return c.unicode() < 0x100; });
    m_line = bytes ? entry.toLatin1() : encode(entry);
    m_cursor = m_line.size();
    show(m_line);
}

void ZELLineEditor::moveToEnd()
{
    repeat(rightShift, m_late ? 0 : columns(m_cursor, m_line.size()));
    m_cursor = m_line.size();
}

int ZELLineEditor::width(const QByteArray &line, int from, int to) const
{
    return m_utf8 ? zelColumns(line, from, to) : to - from;
}

void ZELLineEditor::show(const QByteArray &bytes)
{
    if (m_terminal && !m_late)
        m_output += bytes;
}

void ZELLineEditor::repeat(const char *sequence, int times)
{
    if (m_terminal && !m_late)
        m_output += QByteArray(sequence).repeated(times);
}
