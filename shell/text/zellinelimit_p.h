// SPDX-License-Identifier: MIT
#ifndef ZELLINELIMIT_P_H
#define ZELLINELIMIT_P_H

#include <QByteArray>

/**
 * Drops what of a line is beyond a limit, and knows of it what an answer needs: how it began, and whether it is a
 * tagged one.
 */
class ZELLineLimit
{
public:
    explicit ZELLineLimit(const QByteArray &tag)
        : m_tag(tag)
    {
    }
    /// What has come of the line, the dropped bytes among them.
    void add(int bytes) { m_length += bytes; }
    int length() const { return m_length; }
    /// Whether the next byte, which is counted, goes beyond the limit; 0 is no limit. The end of a line never does.
    bool exceeds(int limit, char byte)
    {
        ++m_length;
        return limit != 0 && m_length > limit && (byte != '\n' || m_dropping);
    }
    bool isDropping() const { return m_dropping; }
    void drop(const QByteArray &bytes);

    /// What is known of the dropped line; a new one begins.
    struct Dropped
    {
        QByteArray head;
        bool isTagged;
    };
    Dropped takeDropped();
    /// A new line begins.
    void restart() { m_length = 0; }

private:
    void drop(char byte);

    QByteArray m_tag;
    int m_length = 0;
    bool m_dropping = false;
    QByteArray m_head;
    QByteArray m_tail;
    bool m_isTagged = false;
};

#endif
