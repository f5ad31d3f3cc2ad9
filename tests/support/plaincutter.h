// SPDX-License-Identifier: MIT
#ifndef TESTS_SUPPORT_PLAINCUTTER_H
#define TESTS_SUPPORT_PLAINCUTTER_H

#include <QByteArray>
#include <QByteArrayList>

const QByteArray startMarker = "ZEL_SHELL_PACKET_START", endMarker = "ZEL_SHELL_PACKET_END";

/// The rules of the packet cutter written down one by one, quadratic and obvious.
struct PlainCutter
{
    QByteArray buffer;
    QByteArrayList feed(const QByteArray &bytes)
    {
        QByteArrayList packets;
        buffer += bytes;
        for (;;) {
            const int start = buffer.indexOf(startMarker), end = buffer.indexOf(endMarker);
            if (start < 0 || end < 0)
                return packets;
            if (start < end)
                packets += buffer.mid(start, end - start);
            buffer.remove(0, end + endMarker.size());
            if (end < start || start == 0)
                return packets;
        }
    }
};

#endif
