#pragma once

#include <sys/uio.h>

#include <cstddef>

#include "input/packet_buffer.h"

// The memory of one datagram: a packet of one part is that part, any other is part 0 followed by part 1. Read
// once: a packet that is sent again may be reused meanwhile, and what was counted must be what is sent.
struct PacketPieces {
    explicit PacketPieces(const PacketBuffer& packet) : count(packet.partCount == 1 ? 1 : MOST_PIECES)
    {
        for (size_t i = 0; i < count; ++i)
            pieces[i] = { packet.parts[i], static_cast<size_t>(packet.partLengths[i].Load()) };
    }

    size_t Bytes() const { return count == 1 ? pieces[0].iov_len : pieces[0].iov_len + pieces[1].iov_len; }

    static constexpr size_t MOST_PIECES = 2;
    size_t count;
    iovec pieces[MOST_PIECES] {};
};
