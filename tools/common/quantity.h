#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace common {

// Texts of people for amounts. A number is decimal ("1", "0.5", "1.25"; no sign, no exponent), the unit follows
// without or after one blank. False leaves the result as it was: no number, an unknown unit or too much for the result.

// "600ms", "1s", "250us", "2min", "1h" -> microseconds, rounded. A bare number has no unit and is refused, 0 excepted.
bool ParseDuration(std::string_view text, int64_t& durationUs);

// "8M", "50Mbit/s", "64k", "1G", "800000", "5.5mbit" -> bits a second, rounded; 1k is 1000.
bool ParseBitRate(std::string_view text, int64_t& bitsPerSecond);

// "64k", "1M", "1500", "1500B", "64kB" -> bytes, rounded; 1k is 1000.
bool ParseSize(std::string_view text, int64_t& sizeBytes);

// "5%", "0.05", "0", "100%" -> 0 to 1, both included.
bool ParseRatio(std::string_view text, double& ratio);

// The shortest text that ParseDuration reads back as the same: "600ms", "1s", "250us".
std::string DurationText(int64_t durationUs);

} // namespace common
