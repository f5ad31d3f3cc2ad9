// SPDX-License-Identifier: MIT
// Any bytes, torn anywhere: the cutter delivers what its rules say, the parser loses no byte of the body.
#include "zelshellpacket_p.h"

#include <cstdint>
#include <cstdlib>

namespace {

const QByteArray startMarker = "ZEL_SHELL_PACKET_START", endMarker = "ZEL_SHELL_PACKET_END";

void demand(bool holds)
{
    if (!holds)
        std::abort();
}

/// The rules of the cutter as they are written down, without any care for time.
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

void parse(const QByteArray &packet)
{
    const ZELShellProcessHeader header = zelParsePacket(packet);
    demand(packet.endsWith(header.body));
    demand(!header.isComplete() || !header.isInsideProcess());
    demand(header.headers.isEmpty() || !header.getRequestMethod().isEmpty());
    header.getRequestBody();
    header.getReturn();
    const int status = header.getProcessStatus(), accept = header.getAccept();
    demand(status >= 0 && status <= 9 && accept >= 0 && accept <= 7);
}

} // namespace

/// Control bytes keep the input short: 1 and 2 stand for the markers, 3 for a line end, 0 tears the stream.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ZELShellPacketCutter cutter;
    PlainCutter plain;
    QByteArray arrival, all;
    for (size_t i = 0; i <= size; ++i) {
        const int byte = i < size ? data[i] : 0;
        if (byte == 0) {
            const QByteArrayList packets = cutter.feed(arrival);
            demand(packets == plain.feed(arrival));
            for (const QByteArray &packet : packets)
                parse(packet);
            all += std::exchange(arrival, QByteArray());
        } else if (byte <= 3) {
            arrival += byte == 1 ? startMarker : byte == 2 ? endMarker : QByteArray("\r\n");
        } else {
            arrival += char(byte);
        }
    }
    parse(all);
    return 0;
}
