#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "demo/canvas.h"

namespace demo {

// The picture as a PNG file (ISO/IEC 15948): 8 bits a colour, no interlace.
std::vector<uint8_t> EncodePng(const Canvas& picture);

uint32_t Crc32(std::span<const uint8_t> bytes); // as PNG's chunks carry it

} // namespace demo
