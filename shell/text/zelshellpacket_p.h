// SPDX-License-Identifier: MIT
#ifndef ZELSHELLPACKET_P_H
#define ZELSHELLPACKET_P_H

#include "zelshellprocessheader.h"

#include <QByteArrayList>
#include <QByteArrayMatcher>

class ZELArguments;

/**
 * The text blocks in which a remote shell answers: writing one, cutting them out of a byte stream, reading one.
 *
 *     ZEL_SHELL_PACKET_START jobs/count#4 CR LF
 *     Accept: STDOUT CR LF ... CR LF
 *     CR LF
 *     body ZEL_SHELL_PACKET_END CR LF
 *
 * All of it is pure: a result depends on the arguments and on nothing else; any thread.
 */

/// One packet with the text as its body and everything else from the record, as UTF-8. "Content-Length" counts the
/// characters of the body as sent. Header values must not contain ':' or line ends: a reader takes such a packet's
/// headers from there on for its body; nor "%" and a digit, which would be filled with the values that follow.
QByteArray zelWritePacket(const ZELArguments &args, const QString &text);

/// Reads one packet as the cutter delivers it. Never fails: what is malformed becomes body.
ZELShellProcessHeader zelParsePacket(const QByteArray &packet);

/**
 * Cuts packets out of bytes that arrive in arbitrary pieces; one cutter per connection and direction.
 *
 * Work is linear in the bytes fed, however they are torn. Garbage is not kept; an unfinished packet is, whatever its
 * length.
 */
class ZELShellPacketCutter
{
public:
    ZELShellPacketCutter();

    /// Takes bytes and returns the packets that are complete now, from the start marker up to the end marker (which is
    /// left out). A packet right at the head of what is buffered ends the pass: complete packets behind it come with
    /// the next call. Packets follow each other with a line end between, so only the first of a connection is
    /// concerned.
    QByteArrayList feed(const QByteArray &bytes);

    /// Bytes kept for the next call.
    int buffered() const { return m_buffer.size() - m_head; }

private:
    struct Marker
    {
        QByteArrayMatcher matcher;
        int at = -1; ///< first occurrence behind the head, -1 when none is known
        int scanned = 0; ///< no occurrence begins before this
    };
    int find(Marker &marker);
    void dropThrough(int end);
    void dropGarbage();
    void compact();

    QByteArray m_buffer;
    int m_head = 0; ///< everything before is used up
    bool m_skipped = false; ///< garbage was dropped in front of the head: a packet there is not at position 0
    Marker m_start;
    Marker m_end;
};

#endif
