#pragma once

#include <cstdint>

// The part of a datagram's slice that the encryption library transforms; nothing when length is 0 or less.
struct DataRegion {
    int32_t offset; // bytes from the start of the slice
    int32_t length; // bytes
};

// `received` is the length of the datagram, `previousLength` that of the one which used the buffer before:
// the library is shown the previous length, which on a stream of equal datagrams is the current one.
// Whole MPEG-TS packets are passed from the start; behind a 12-byte RTP header the first one is skipped.
DataRegion CallbackRegion(int32_t received, int32_t previousLength);
