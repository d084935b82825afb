#include "demo/slice.h"

#include <algorithm>
#include <array>

namespace demo {

namespace {

constexpr std::array<uint8_t, 4> MAGIC { 'T', 'X', 'P', 'V' };

uint16_t Sum(std::span<const uint8_t> points)
{
    uint32_t sum = 0;
    for (const uint8_t point : points)
        sum = sum * 31 + point;
    return static_cast<uint16_t>(sum ^ sum >> 16);
}

} // namespace

std::vector<uint8_t> WriteSlice(const Canvas& picture, uint32_t number, int firstBlock, int blocks)
{
    std::vector<uint8_t> points;
    for (int block = firstBlock; block < firstBlock + blocks; ++block) {
        const std::vector<uint8_t> packed = PackBlock(picture, block);
        points.insert(points.end(), packed.begin(), packed.end());
    }
    std::vector<uint8_t> bytes(MAGIC.begin(), MAGIC.end());
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<uint8_t>(number >> shift));
    const uint16_t sum = Sum(points);
    for (const int value : { firstBlock, blocks, sum >> 8, sum & 0xFF })
        bytes.push_back(static_cast<uint8_t>(value));
    bytes.insert(bytes.end(), points.begin(), points.end());
    return bytes;
}

std::optional<Slice> ReadSlice(std::span<const uint8_t> bytes)
{
    if (bytes.size() < SLICE_HEADER_BYTES || !std::equal(MAGIC.begin(), MAGIC.end(), bytes.begin()))
        return std::nullopt;
    uint32_t number = 0;
    for (size_t at = 4; at < 8; ++at)
        number = number << 8 | bytes[at];
    const int first = bytes[8], blocks = bytes[9];
    const auto points = bytes.subspan(SLICE_HEADER_BYTES);
    if (blocks == 0 || first + blocks > BLOCKS || points.size() != static_cast<size_t>(blocks) * BLOCK_BYTES)
        return std::nullopt;
    if (Sum(points) != (bytes[10] << 8 | bytes[11]))
        return std::nullopt;
    return Slice { number, first, points };
}

} // namespace demo
