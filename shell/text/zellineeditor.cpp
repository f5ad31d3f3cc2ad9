// SPDX-License-Identifier: MIT
#include "zellineeditor_p.h"

#include "zelguard_p.h"

#include <QChar>
#include <algorithm>
#include <iterator>
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

/// The length of the UTF-8 sequence at \a bytes; 0 when it is none, -1 when it is the beginning of one.
int sequenceLength(const char *bytes, int available)
{
    const auto at = [bytes](int i) { return static_cast<uchar>(bytes[i]); };
    const uchar lead = at(0);
    const int length = lead < 0x80 ? 1 : lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
    for (int i = 1; i < std::min(length, available); ++i)
        if ((at(i) & 0xc0) != 0x80)
            return 0;
    // Overlong forms, surrogates and what lies beyond Unicode show at the second byte.
    if (length > 2 && available > 1) {
        const uchar low = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
        const uchar high = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
        if (at(1) < low || at(1) > high)
            return 0;
    }
    return available < length ? -1 : length;
}

/// The length of the character that begins at \a at: a byte that is no part of a sequence stands for itself.
int nextLength(const QByteArray &line, int at)
{
    return std::max(1, sequenceLength(line.constData() + at, line.size() - at));
}

/// The length of the character that ends at \a at.
int previousLength(const QByteArray &line, int at)
{
    for (int length = 2; length <= std::min(4, at); ++length)
        if (sequenceLength(line.constData() + at - length, length) == length)
            return length;
    return 1;
}

uint codePoint(const char *sequence, int length)
{
    if (length == 1)
        return static_cast<uchar>(*sequence);
    uint code = static_cast<uchar>(*sequence) & (0x7f >> length);
    for (int i = 1; i < length; ++i)
        code = code << 6 | (static_cast<uchar>(sequence[i]) & 0x3f);
    return code;
}

/// How many columns a terminal gives the character.
int characterWidth(uint code)
{
    static constexpr struct
    {
        uint first, last;
    } wide[]
        = {{0x1100, 0x115f}, {0x2e80, 0x303e}, {0x3041, 0xa4cf}, {0xac00, 0xd7a3}, {0xf900, 0xfaff}, {0xfe30, 0xfe6f},
            {0xff00, 0xff60}, {0xffe0, 0xffe6}, {0x1f300, 0x1f64f}, {0x1f900, 0x1f9ff}, {0x20000, 0x3fffd}};
    const auto category = QChar::category(code);
    if (category == QChar::Mark_NonSpacing || category == QChar::Mark_Enclosing)
        return 0;
    return std::any_of(std::begin(wide), std::end(wide), [code](auto &r) { return code >= r.first && code <= r.last; })
        ? 2
        : 1;
}

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
    if (m_state != State::Text || !m_held.isEmpty() || m_cursor != m_line.size())
        return 0;
    const char *const end = std::find_if_not(bytes, bytes + length, [](char c) { return c >= ' ' && c <= '~'; });
    insert(bytes, int(end - bytes));
    return int(end - bytes);
}

ZELLineEditor::Event ZELLineEditor::feedControl(char byte)
{
    releaseHeld();
    if (byte == '\n') {
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
    const int length = sequenceLength(m_held.constData(), m_held.size());
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
    return std::exchange(m_output, QByteArray());
}

QString ZELLineEditor::line() const
{
    // By length, because a byte array alone is converted up to its first NUL only.
    return QString::fromLatin1(m_line.constData(), m_line.size());
}

QString ZELLineEditor::takeLine()
{
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
    moveToEnd();
    m_line += bytes;
    m_cursor = m_line.size();
    show(bytes);
}

void ZELLineEditor::redraw()
{
    show(m_line);
    repeat(leftShift, columns(m_cursor, m_line.size()));
}

void ZELLineEditor::insert(const char *character, int length)
{
    if (m_cursor == m_line.size()) {
        m_line.append(character, length);
        m_cursor = m_line.size();
        if (m_terminal)
            m_output.append(character, length);
        return;
    }
    m_line.insert(m_cursor, character, length);
    show(m_line.mid(m_cursor));
    m_cursor += length;
    repeat(leftShift, columns(m_cursor, m_line.size()));
}

void ZELLineEditor::eraseBack()
{
    if (m_cursor == 0)
        return;
    const int length = previousLength(m_line, m_cursor);
    const int width = columns(m_cursor - length, m_cursor);
    repeat(deleteOne, width);
    m_cursor -= length;
    m_line.remove(m_cursor, length);
    show(m_line.mid(m_cursor) + QByteArray(width, ' '));
    repeat(leftShift, columns(m_cursor, m_line.size()) + width);
}

void ZELLineEditor::stepLeft()
{
    if (m_cursor == 0)
        return;
    const int length = previousLength(m_line, m_cursor);
    repeat(leftShift, columns(m_cursor - length, m_cursor));
    m_cursor -= length;
}

void ZELLineEditor::stepRight()
{
    if (m_cursor == m_line.size())
        return;
    const int length = nextLength(m_line, m_cursor);
    repeat(rightShift, columns(m_cursor, m_cursor + length));
    m_cursor += length;
}

void ZELLineEditor::showHistory(bool back)
{
    QString entry;
    if (!m_history || !(back ? m_history->stepBack(line(), &entry) : m_history->stepForward(&entry)))
        return;
    moveToEnd();
    repeat(deleteOne, columns(0, m_line.size()));
    // Entries are lines of bytes; only one that a program added may hold more.
    const bool bytes = std::all_of(entry.cbegin(), entry.cend(), [](QChar c) { return c.unicode() < 0x100; });
    m_line = bytes ? entry.toLatin1() : encode(entry);
    m_cursor = m_line.size();
    show(m_line);
}

void ZELLineEditor::moveToEnd()
{
    repeat(rightShift, columns(m_cursor, m_line.size()));
    m_cursor = m_line.size();
}

int ZELLineEditor::columns(int from, int to) const
{
    if (!m_utf8)
        return to - from;
    int width = 0;
    for (int at = from, length = 0; at < to; at += length) {
        length = nextLength(m_line, at);
        width += characterWidth(codePoint(m_line.constData() + at, length));
    }
    return width;
}

void ZELLineEditor::show(const QByteArray &bytes)
{
    if (m_terminal)
        m_output += bytes;
}

void ZELLineEditor::repeat(const char *sequence, int times)
{
    if (m_terminal)
        m_output += QByteArray(sequence).repeated(times);
}
