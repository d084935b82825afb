#include "arqctl/top/amount_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "common/clock.h"

namespace arqctl::top {

namespace {

constexpr double STEP = 1000;
constexpr std::array<const char*, 6> PREFIXES { "", "k", "M", "G", "T", "P" };

struct Scaled {
    double value;
    size_t prefix;
};

// So that three digits are enough: 999.6 thousand is 1.00 million.
Scaled ScaleDown(double value)
{
    Scaled scaled { std::isfinite(value) ? std::max(value, 0.0) : 0, 0 };
    while (scaled.value >= STEP - 0.5 && scaled.prefix + 1 < PREFIXES.size()) {
        scaled.value /= STEP;
        ++scaled.prefix;
    }
    return scaled;
}

std::string ThreeDigits(const Scaled& scaled)
{
    if (scaled.prefix == 0 || scaled.value >= 99.95)
        return fmt::format("{:.0f}", scaled.value);
    const int decimals = scaled.value >= 9.995 ? 1 : 2;
    return fmt::format("{:.{}f}", scaled.value, decimals);
}

} // namespace

std::string PerSecondText(double aSecond)
{
    if (aSecond > 0 && aSecond < 0.05)
        return "<0.1/s";
    if (aSecond > 0 && aSecond < 9.95)
        return fmt::format("{:.1f}/s", aSecond);
    const Scaled scaled = ScaleDown(aSecond);
    return fmt::format("{}{}/s", ThreeDigits(scaled), PREFIXES[scaled.prefix]);
}

std::string CountText(uint64_t count)
{
    const Scaled scaled = ScaleDown(static_cast<double>(count));
    return ThreeDigits(scaled) + PREFIXES[scaled.prefix];
}

std::string AgeText(int64_t ageUs)
{
    constexpr int64_t MINUTE = 60, HOUR = 60 * MINUTE, DAY = 24 * HOUR;
    const int64_t seconds = std::max<int64_t>(ageUs, 0) / common::US_PER_SECOND;
    if (seconds < 2 * MINUTE)
        return fmt::format("{} s", seconds);
    if (seconds < 2 * HOUR)
        return fmt::format("{} min", seconds / MINUTE);
    if (seconds < 2 * DAY)
        return fmt::format("{} h", seconds / HOUR);
    return fmt::format("{} d", seconds / DAY);
}

double RoundTop(double value, double least)
{
    if (!std::isfinite(value) || value <= least)
        return least;
    const double power = std::pow(10.0, std::floor(std::log10(value)));
    constexpr double NEXT = 10; // power of ten: rounding may have made this one too small by a hair
    for (const double factor : { 1.0, 2.0, 5.0, NEXT, 2 * NEXT })
        if (factor * power >= value)
            return factor * power;
    return value;
}

} // namespace arqctl::top
