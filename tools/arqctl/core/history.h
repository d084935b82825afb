#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace arqctl {

// What the plots of a channel show.
enum class Curve : size_t {
    InputBitRate, // bit/s
    OutputBitRate,
    InputPackets, // a second
    Lost,
    SentBeyond,
    Withheld,
    Receivers, // number in the list
    ReportedMissing, // a second, over all reports of receivers
    ReportedRecovered,
    ReportedLost,
    Count
};
constexpr size_t CURVES = static_cast<size_t>(Curve::Count);

// One second of a channel; NaN where nothing is known. Single precision: 7 digits are more than a plot has.
using HistorySample = std::array<float, CURVES>;
HistorySample UnknownSample();

// The last hour by seconds and the last day by tens of seconds. All memory (about 0.5 MB) is taken at the start.
//
// Steps are counted in seconds of a clock that never goes back (the monotonic one), so that a step of the wall clock
// moves the labels of all and tears no hole. Threads: one thread's own.
class History {
public:
    static constexpr int64_t FINE_SECONDS = 3600;
    static constexpr int64_t COARSE_STEP = 10;
    static constexpr int64_t COARSE_SECONDS = 86400;

    History();

    // The sample of one second. Seconds that were left out stay unknown; one that is not newer than the last is ignored.
    void Add(int64_t second, const HistorySample& sample);

    struct Columns {
        int64_t stepSeconds = 1;
        std::vector<int64_t> seconds; // where each step begins, oldest first
        std::array<std::vector<float>, CURVES> values; // NaN: nothing known in this step
    };
    // The `span` seconds up to and including `nowSecond`, in at most `points` equal steps: the mean of what is known in
    // each, and the largest of Lost and ReportedLost, which a mean would hide. Steps are whole multiples of their length,
    // so that a window that moves shows the same steps again.
    Columns Read(int64_t nowSecond, int64_t span, int64_t points) const;

private:
    // `Length` steps in a ring, each the samples of `m_nStep` seconds.
    class Ring {
    public:
        Ring(int64_t step, int64_t seconds);
        void Put(int64_t index, const HistorySample& sample);
        const HistorySample* At(int64_t index) const; // null: not known any more, or not yet
        int64_t Step() const { return m_nStep; }

    private:
        void SkipTo(int64_t index);

        const int64_t m_nStep;
        std::vector<HistorySample> m_samples;
        int64_t m_nLast = -1; // the newest index; -1: none
    };

    Ring m_fine;
    Ring m_coarse;
    int64_t m_nLastSecond = -1;
    // The tens of seconds that is being filled.
    int64_t m_nCoarseIndex = -1;
    std::vector<HistorySample> m_coarseSamples;
};

// The sample that stands for several: see History::Read.
HistorySample Thinned(const std::vector<HistorySample>& samples);

} // namespace arqctl
