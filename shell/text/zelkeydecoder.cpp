// SPDX-License-Identifier: MIT
#include "zelkeydecoder_p.h"

#include "zelgrapheme_p.h"

#include <QList>
#include <algorithm>
#include <iterator>
#include <utility>

namespace {

constexpr char escapeByte = 27;
constexpr int longestSequence = 64;

struct ByteKey
{
    char byte;
    ZELKey key;
};

template <int N>
ZELKey find(const ByteKey (&table)[N], char byte)
{
    const auto found = std::find_if(std::begin(table), std::end(table), [byte](auto &row) { return row.byte == byte; });
    return found == std::end(table) ? ZELKey::None : found->key;
}

constexpr char control(char letter)
{
    return letter & 0x1f;
}

constexpr ByteKey controls[] = {
    {control('A'), ZELKey::Home},
    {control('B'), ZELKey::Left},
    {control('C'), ZELKey::Interrupt},
    {control('D'), ZELKey::DeleteOrEnd},
    {control('E'), ZELKey::End},
    {control('F'), ZELKey::Right},
    {control('G'), ZELKey::Cancel},
    {control('H'), ZELKey::Backspace},
    {control('I'), ZELKey::Tab},
    {control('J'), ZELKey::Enter},
    {control('K'), ZELKey::KillToEnd},
    {control('L'), ZELKey::ClearScreen},
    {control('M'), ZELKey::Enter},
    {control('N'), ZELKey::Down},
    {control('P'), ZELKey::Up},
    {control('R'), ZELKey::SearchBack},
    {control('S'), ZELKey::SearchForward},
    {control('T'), ZELKey::Transpose},
    {control('U'), ZELKey::KillToStart},
    {control('W'), ZELKey::KillBlankWordBack},
    {control('Y'), ZELKey::Yank},
    {control('_'), ZELKey::Undo},
    {127, ZELKey::Backspace},
};

constexpr ByteKey metas[] = {
    {'b', ZELKey::WordLeft},
    {'B', ZELKey::WordLeft},
    {'f', ZELKey::WordRight},
    {'F', ZELKey::WordRight},
    {'d', ZELKey::KillWord},
    {'D', ZELKey::KillWord},
    {'y', ZELKey::YankEarlier},
    {'Y', ZELKey::YankEarlier},
    {'.', ZELKey::LastArgument},
    {'_', ZELKey::LastArgument},
    {127, ZELKey::KillWordBack},
    {control('H'), ZELKey::KillWordBack},
};

constexpr ByteKey finals[] = {
    {'A', ZELKey::Up},
    {'B', ZELKey::Down},
    {'C', ZELKey::Right},
    {'D', ZELKey::Left},
    {'H', ZELKey::Home},
    {'F', ZELKey::End},
    {'Z', ZELKey::BackTab},
    // rxvt's arrows with Ctrl
    {'c', ZELKey::WordRight},
    {'d', ZELKey::WordLeft},
};

struct NumberKey
{
    int number;
    ZELKey key;
};

constexpr NumberKey numbered[] = {
    {1, ZELKey::Home},
    {3, ZELKey::Delete},
    {4, ZELKey::End},
    {7, ZELKey::Home},
    {8, ZELKey::End},
    {200, ZELKey::PasteBegin},
    {201, ZELKey::PasteEnd},
};

/// An arrow with a modifier goes by words.
ZELKey byWord(ZELKey key)
{
    return key == ZELKey::Left ? ZELKey::WordLeft : key == ZELKey::Right ? ZELKey::WordRight : key;
}

/// OSC, DCS, PM and SOS. What begins an APC is Alt-_ on a keyboard.
bool isStringLead(char byte)
{
    return byte == ']' || byte == 'P' || byte == '^' || byte == 'X';
}

bool isControl(char byte)
{
    return uchar(byte) < 0x20 || byte == 127;
}

} // namespace

void ZELKeyDecoder::reset()
{
    *this = ZELKeyDecoder();
}

int ZELKeyDecoder::takeAgain()
{
    return std::exchange(m_again, -1);
}

ZELKey ZELKeyDecoder::feed(char byte)
{
    switch (m_state) {
    case State::Ground:
        return ground(byte);
    case State::Escape:
        return escape(byte);
    case State::Csi:
        return csi(byte);
    case State::Ss3:
        return ss3(byte);
    case State::Linux:
        m_state = State::Ground;
        return isControl(byte) ? abort(byte) : ZELKey::None;
    case State::String:
    case State::StringEscape:
        return string(byte);
    case State::Mouse:
        if (--m_skip == 0)
            m_state = State::Ground;
        return ZELKey::None;
    }
    return ZELKey::None;
}

ZELKey ZELKeyDecoder::ground(char byte)
{
    if (!m_held.isEmpty() || uchar(byte) >= 0x80)
        return character(byte);
    // Enter is CR, LF, CR LF, or telnet's CR NUL.
    if (std::exchange(m_afterReturn, byte == '\r') && (byte == '\n' || byte == 0))
        return ZELKey::None;
    if (byte == escapeByte) {
        m_state = State::Escape;
        m_meta = false;
        return ZELKey::None;
    }
    if (isControl(byte))
        return find(controls, byte);
    m_text = QByteArray(1, byte);
    return ZELKey::Text;
}

/// A begun sequence that is broken off counts as nothing: alone its bytes are no characters, and may be controls.
ZELKey ZELKeyDecoder::character(char byte)
{
    m_held += byte;
    const int length = zelSequenceLength(m_held.constData(), m_held.size());
    if (length < 0)
        return ZELKey::None;
    const QByteArray whole = std::exchange(m_held, QByteArray());
    if (length == 0 && whole.size() > 1)
        return abort(byte);
    const uchar last = uchar(whole.back());
    if (whole.size() < 2 ? last < 0xa0 : whole.startsWith('\xc2') && last < 0xa0)
        return ZELKey::None;
    m_text = whole;
    return ZELKey::Text;
}

ZELKey ZELKeyDecoder::abort(char byte)
{
    m_state = State::Ground;
    m_again = uchar(byte);
    return ZELKey::None;
}

ZELKey ZELKeyDecoder::escape(char byte)
{
    m_parameters.clear();
    if (byte == escapeByte) {
        m_meta = true;
        return ZELKey::None;
    }
    m_state = byte == '[' ? State::Csi : byte == 'O' ? State::Ss3 : isStringLead(byte) ? State::String : State::Ground;
    if (m_state != State::Ground)
        return ZELKey::None;
    const ZELKey key = find(metas, byte);
    return key == ZELKey::None && isControl(byte) ? abort(byte) : key;
}

ZELKey ZELKeyDecoder::csi(char byte)
{
    if (byte == '[' && m_parameters.isEmpty()) {
        m_state = State::Linux;
        return ZELKey::None;
    }
    if (isControl(byte) || uchar(byte) >= 0x80)
        return abort(byte);
    if (byte < 0x40) {
        if (m_parameters.size() < longestSequence)
            m_parameters += byte;
        return ZELKey::None;
    }
    m_state = State::Ground;
    if (byte == 'M' && m_parameters.isEmpty()) {
        m_state = State::Mouse;
        m_skip = 3;
        return ZELKey::None;
    }
    return byte == 't' ? csiSize() : csiKey(byte);
}

ZELKey ZELKeyDecoder::csiSize()
{
    constexpr int largest = 10000;
    const QList<QByteArray> numbers = m_parameters.split(';');
    if (numbers.size() != 3 || numbers.at(0) != "8")
        return ZELKey::None;
    m_rows = qBound(0, numbers.at(1).toInt(), largest);
    m_columns = qBound(0, numbers.at(2).toInt(), largest);
    return ZELKey::Resize;
}

ZELKey ZELKeyDecoder::csiKey(char final) const
{
    const QList<QByteArray> numbers = m_parameters.split(';');
    const bool isModified = m_meta || (numbers.size() > 1 && numbers.at(1).toInt() > 2);
    // rxvt says its modifiers by the final byte of numbered keys: '^' for Ctrl, '$' for Shift, '@' for both.
    if (final == '~' || final == '^' || final == '@') {
        const int number = numbers.first().toInt();
        const auto found = std::find_if(
            std::begin(numbered), std::end(numbered), [number](const NumberKey &row) { return row.number == number; });
        if (found == std::end(numbered))
            return ZELKey::None;
        return found->key == ZELKey::Delete && (isModified || final != '~') ? ZELKey::KillWord : found->key;
    }
    const bool isBare = m_parameters.isEmpty() || m_parameters.at(0) == '1';
    if (!isBare && !(m_parameters.size() == 1 && m_parameters.at(0) == '5'))
        return ZELKey::None;
    if (final == 'c' || final == 'd')
        return ZELKey::None; // rxvt: with Shift
    const ZELKey key = find(finals, final);
    return isModified || m_parameters == "5" ? byWord(key) : key;
}

ZELKey ZELKeyDecoder::ss3(char byte)
{
    if (isControl(byte) || uchar(byte) >= 0x80)
        return abort(byte);
    if (byte >= '0' && byte <= '9' && m_parameters.size() < longestSequence) {
        m_parameters += byte;
        return ZELKey::None;
    }
    m_state = State::Ground;
    if (byte == 'M')
        return ZELKey::Enter; // of the number pad
    const ZELKey key = find(finals, byte);
    return m_meta || !m_parameters.isEmpty() ? byWord(key) : key;
}

ZELKey ZELKeyDecoder::string(char byte)
{
    const bool isEnd = m_state == State::StringEscape && byte == '\\';
    if (isEnd || byte == 7) {
        m_state = State::Ground;
        return ZELKey::None;
    }
    if (byte == escapeByte) {
        m_state = State::StringEscape;
        return ZELKey::None;
    }
    return m_state == State::StringEscape || isControl(byte) ? abort(byte) : ZELKey::None;
}
