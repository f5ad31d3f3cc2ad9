// SPDX-License-Identifier: MIT
#ifndef ZELTELNETFILTER_P_H
#define ZELTELNETFILTER_P_H

#include <QByteArray>

/**
 * Takes the negotiation of a telnet client out of the bytes that it sends, and answers it (RFC 854, 857, 858, 1073).
 *
 * At the first command that comes the server offers to echo and to do without go-ahead, which switches clients from
 * lines to single characters, and asks for the window's size. Clients that never negotiate get nothing to see. A
 * window's size comes out as xterm's report of it. Commands may be torn anywhere. Pure.
 */
class ZELTelnetFilter
{
public:
    /// The bytes that are left of \a received.
    QByteArray filter(const QByteArray &received);
    /// What is to be sent since the last call.
    QByteArray takeAnswer();

private:
    enum class State { Data, Command, Option, Sub, SubCommand };

    void take(char byte, QByteArray *data);
    void command(char byte, QByteArray *data);
    void option(uchar option);
    void endSub(QByteArray *data);
    void send(uchar verb, uchar option);

    State m_state = State::Data;
    QByteArray m_answer;
    QByteArray m_sub;
    uchar m_verb = 0;
    bool m_hasOffered = false;
};

#endif
