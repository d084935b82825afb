#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "demo/test_picture.h"

namespace demo {

// Some blocks of one picture, as a datagram carries them.
//
//     "TXPV", picture number (32 bits), first block, blocks, sum of all that follows (16 bits), points; big-endian
struct Slice {
    uint32_t picture;
    int firstBlock;
    std::span<const uint8_t> points; // of whole blocks
};

constexpr size_t SLICE_HEADER_BYTES = 12;

std::vector<uint8_t> WriteSlice(const Canvas& picture, uint32_t number, int firstBlock, int blocks);

// Nothing if the bytes are no slice, whole and undamaged.
std::optional<Slice> ReadSlice(std::span<const uint8_t> bytes);

} // namespace demo
