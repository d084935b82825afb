#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "arqctl/core/meter.h"

namespace arqctl::top {

// What the view plots.
enum class PlotSeries : uint8_t { Input, Output, Lost, Resent, Withheld };
constexpr size_t SERIES_COUNT = 5;
using PlotSample
    = std::array<double, SERIES_COUNT>; // bit/s for Input and Output, packets a second for the others

PlotSample SampleOf(const Reading& reading);

// The last quarter of an hour of one proxy, a value a second; its memory is fixed. Seconds are whole ones of the monotonic
// clock, so that columns of several seconds keep their place while time goes on. Threads: one thread's own.
class RecentHistory {
public:
    static constexpr int64_t SECONDS = 900;
    // An answer tells of the time since the one before, as long as this at most; beyond is a gap.
    static constexpr int64_t LONGEST_STEP_S = 3;

    RecentHistory();

    void Take(const PlotSample& sample, int64_t nowUs);
    // Over seconds [from, from + count): the mean of bit rates, the most of the others, so that one loss is seen.
    // Nothing when none of them is known.
    std::optional<double> Over(PlotSeries series, int64_t fromSecond, int64_t count) const;

private:
    struct Slot {
        int64_t second = -1;
        PlotSample sample {};
    };
    void Set(int64_t second, const PlotSample& sample);
    const Slot& SlotOf(int64_t second) const;

    std::vector<Slot> m_slots;
    int64_t m_nLast = -1; // second
};

} // namespace arqctl::top
