#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace demo {

// The bytes in the zlib format (RFC 1950): one deflate block with the fixed codes (RFC 1951, 3.2.6), which suits pictures
// with large even areas. Any inflater reads it.
std::vector<uint8_t> Compress(std::span<const uint8_t> bytes);

uint32_t Adler32(std::span<const uint8_t> bytes); // RFC 1950, 8.2

} // namespace demo
