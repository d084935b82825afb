#include "arqctl/core/amount_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace arqctl {

std::string Decimal(double number, int digits)
{
    char text[400];
    const auto [end, error]
        = std::to_chars(text, text + sizeof(text), number, std::chars_format::fixed, digits);
    return error == std::errc {} ? std::string(text, end) : "";
}

std::string BitRateText(double bitsPerSecond)
{
    constexpr std::array UNITS { " bit/s", " kbit/s", " Mbit/s", " Gbit/s", " Tbit/s" };
    size_t unit = 0;
    double shown = std::isfinite(bitsPerSecond) ? std::max(bitsPerSecond, 0.0) : 0;
    for (; shown >= 999.5 && unit + 1 < UNITS.size(); ++unit)
        shown /= 1000;
    const int digits = unit == 0 || shown >= 99.95 ? 0 : shown >= 9.995 ? 1 : 2;
    return Decimal(shown, digits) + UNITS[unit];
}

} // namespace arqctl
