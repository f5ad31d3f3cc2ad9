// SPDX-License-Identifier: MIT
// Any bytes, torn anywhere: the cutter delivers what its rules say, the parser loses no byte of the body.
#include "plaincutter.h"
#include "zelshellpacket_p.h"

#include <cstdint>
#include <cstdlib>

namespace {

void demand(bool holds)
{
    if (!holds)
        std::abort();
}

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
