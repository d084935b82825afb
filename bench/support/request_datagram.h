#pragma once

#include <cstdint>
#include <vector>

// A receiver's request for `count` consecutive numbers from `first` on, with a right checksum and a window
// so wide that no packet of a benchmark is ever too old.
std::vector<uint8_t> RequestDatagram(uint16_t first, uint16_t count);
