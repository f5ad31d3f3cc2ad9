// SPDX-License-Identifier: MIT
#include "zeltelnetfilter_p.h"

#include <utility>

namespace {

enum : uchar { se = 240, sb = 250, will = 251, wont = 252, doIt = 253, dont = 254, iac = 255 };
enum : uchar { echo = 1, suppressGoAhead = 3, windowSize = 31 };
constexpr int longestSub = 64;

} // namespace

QByteArray ZELTelnetFilter::filter(const QByteArray &received)
{
    if (m_state == State::Data && !received.contains(char(iac)))
        return received;
    QByteArray data;
    for (const char byte : received)
        take(byte, &data);
    return data;
}

QByteArray ZELTelnetFilter::takeAnswer()
{
    return std::exchange(m_answer, QByteArray());
}

void ZELTelnetFilter::take(char byte, QByteArray *data)
{
    const bool isIac = uchar(byte) == iac;
    switch (m_state) {
    case State::Data:
        if (isIac)
            m_state = State::Command;
        else
            *data += byte;
        break;
    case State::Command:
        command(byte, data);
        break;
    case State::Option:
        m_state = State::Data;
        option(uchar(byte));
        break;
    case State::Sub:
        if (isIac)
            m_state = State::SubCommand;
        else if (m_sub.size() < longestSub)
            m_sub += byte;
        break;
    case State::SubCommand:
        m_state = isIac ? State::Sub : State::Data;
        if (isIac)
            m_sub += byte;
        else
            endSub(data);
        break;
    }
}

void ZELTelnetFilter::command(char byte, QByteArray *data)
{
    m_verb = uchar(byte);
    m_state = m_verb >= will && m_verb < iac ? State::Option : m_verb == sb ? State::Sub : State::Data;
    m_sub.clear();
    if (m_verb == iac)
        *data += byte;
}

void ZELTelnetFilter::option(uchar option)
{
    if (!std::exchange(m_hasOffered, true)) {
        send(will, echo);
        send(will, suppressGoAhead);
        send(doIt, windowSize);
    }
    const bool isOurs = option == echo || option == suppressGoAhead;
    if (m_verb == doIt && !isOurs)
        send(wont, option);
    else if (m_verb == will && option == suppressGoAhead)
        send(doIt, option);
    else if (m_verb == will && option != windowSize)
        send(dont, option);
}

void ZELTelnetFilter::endSub(QByteArray *data)
{
    if (m_sub.size() != 5 || uchar(m_sub.at(0)) != windowSize)
        return;
    const auto number = [this](int at) { return uchar(m_sub.at(at)) << 8 | uchar(m_sub.at(at + 1)); };
    *data += "\033[8;" + QByteArray::number(number(3)) + ';' + QByteArray::number(number(1)) + 't';
}

void ZELTelnetFilter::send(uchar verb, uchar option)
{
    m_answer += char(iac);
    m_answer += char(verb);
    m_answer += char(option);
}
