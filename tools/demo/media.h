#pragma once

#include <cstdint>
#include <span>

#include "arq/wire.h"

namespace demo {

// RTP version 2 with a whole header; echoes and stop messages are not.
inline bool IsMedia(std::span<const uint8_t> datagram)
{
    return datagram.size() >= RTP_HEADER_BYTES && datagram[0] >> 6 == 2;
}

// Whether the proxy sent this media packet again, by its payload type.
inline bool IsAgain(std::span<const uint8_t> media)
{
    return (media[1] & ~RTP_MARKER_BIT) == RETRANSMIT_PAYLOAD_TYPE;
}

} // namespace demo
