#pragma once

#include <cstdint>
#include <cstring>

namespace simulation {

// A word as the sender's machine has it, at any address.
inline uint16_t Word16(const uint8_t* bytes)
{
    uint16_t word = 0;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
}

} // namespace simulation
