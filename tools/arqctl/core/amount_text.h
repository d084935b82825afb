#pragma once

#include <string>

namespace arqctl {

// `number` with so many digits behind the point: "12.30".
std::string Decimal(double number, int digits);

// Three digits that count, as far as the unit has them: "999 bit/s", "1.00 kbit/s", "12.3 Mbit/s". What is below 0 or
// no number counts as 0.
std::string BitRateText(double bitsPerSecond);

} // namespace arqctl
