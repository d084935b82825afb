#pragma once

#include <cstddef>
#include <cstdint>

// One received datagram of bench/floors.
struct FloorPacket {
    static constexpr size_t SLICE_BYTES = 1536;

    size_t length;
    uint8_t data[SLICE_BYTES];
};

// Of one call: recvmmsg, and the pieces of a train.
constexpr uint32_t MOST_AT_ONCE = 64;
