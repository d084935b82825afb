#pragma once

#include <cstdint>
#include <cstring>

#include "arq/wire.h"

// A media datagram of the benchmarks: an RTP header, then seven MPEG-TS packets' worth of payload that
// begins with the time at which it was handed to the kernel.
struct MediaDatagram {
    MediaHeader header;
    uint8_t sentNs[sizeof(int64_t)]; // wall clock; at an odd place for a word of this size
    uint8_t rest[7 * 188 - sizeof(int64_t)];

    int64_t SentNs() const
    {
        int64_t value = 0;
        std::memcpy(&value, sentNs, sizeof(value));
        return value;
    }
    void SetSentNs(int64_t value) { std::memcpy(sentNs, &value, sizeof(value)); }
};
static_assert(sizeof(MediaDatagram) == 1328);

// Marks what belongs to one turn, so that nothing late is counted for the next one.
inline void FillHeader(MediaDatagram& datagram, uint16_t seq, uint32_t turn)
{
    datagram.header.flags.Set(RTP_VERSION_FLAGS);
    datagram.header.payloadType.Set(MEDIA_PAYLOAD_TYPE);
    datagram.header.seq.Set(seq);
    datagram.header.ssrc.Set(turn);
}
