#pragma once

#include <cmath>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace arqrx {

// How figures stand in JSON, in one place for all reports.

constexpr double THOUSAND = 1000;

// Microseconds to milliseconds, or milliseconds to seconds.
inline double Thousandth(int64_t value)
{
    return static_cast<double>(value) / THOUSAND;
}

inline double Seconds(int64_t us)
{
    return std::round(static_cast<double>(us) / THOUSAND) / THOUSAND;
}

// Nothing while the time is not known, which is below 0.
inline void AddKnownMs(nlohmann::ordered_json& object, const std::string& name, int64_t us)
{
    if (us >= 0)
        object[name + "_ms"] = Thousandth(us);
}

// `bytes` in `us`, which is more than 0.
inline int64_t BitRateOf(uint64_t bytes, int64_t us)
{
    return std::llround(static_cast<double>(bytes) * 8e6 / static_cast<double>(us));
}

} // namespace arqrx
