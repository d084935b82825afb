#pragma once

#include "arq/wire.h"
#include "input/packet_buffer.h"

// The first bytes of a packet as the RTP header that stands there. The only place where packet data is
// taken for a MediaHeader: alignment 1 and relaxed byte accesses make that right for any address, and
// every piece of memory that a packet's part 0 points to holds at least RTP_HEADER_BYTES, however short
// the datagram in it is.
inline MediaHeader& HeaderOf(const PacketBuffer& packet)
{
    return *reinterpret_cast<MediaHeader*>(packet.Data());
}
