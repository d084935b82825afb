#pragma once

#include <cstdint>

namespace arqrx {

// The proxy's clock as media timestamps show it, mapped to ours: when the fastest packet with a timestamp arrives. A
// line through the smoothed minimum of (arrival - timestamp) that is bent, never broken: play-out does not jump. Its
// slope is the drift between the two clocks; what else changes (another path, a small step) is made up for slowly.
// Only first sendings may be added.
class ClockFollower {
public:
    // The first packet of a stretch: ticks of 90 kHz, 32 bits that wrap after 13 hours.
    ClockFollower(uint32_t timestamp, int64_t arrivalUs);
    ClockFollower() = default;

    // The timestamp in 64 bits and microseconds, the nearest to what is expected at `nowUs`.
    int64_t MediaUs(uint32_t timestamp, int64_t nowUs) const;
    // When the fastest packet with this timestamp arrives.
    int64_t LocalUs(int64_t mediaUs) const;

    // Until the first packet is played out the line follows the minimum at once, and by how much it fell is returned:
    // what is there is to be played out so much earlier.
    int64_t Add(int64_t mediaUs, int64_t arrivalUs);
    void Settle() { m_bSettled = true; }
    bool IsSettled() const { return m_bSettled; }

    // By how much even the fastest packet of the last 2 s was later than the line; negative: sooner.
    int64_t LatelyBehindUs() const { return m_nErrorUs; }
    double DriftPpm() const { return 0 - 1e6 * m_fRate; } // how much faster the proxy's clock runs

private:
    void EndWindow(int64_t mediaUs, int64_t arrivalUs);
    void BeginWindow(int64_t arrivalUs);

    // LocalUs(m_nFromMediaUs) == m_nFromLocalUs; from there on the rate, and for a window's length the bend.
    int64_t m_nFromMediaUs = 0;
    int64_t m_nFromLocalUs = 0;
    double m_fRate = 0; // our microseconds a microsecond of the proxy's, less 1
    double m_fBend = 0;
    bool m_bSettled = false;

    int64_t m_nWindowUs = 0; // when it began
    int64_t m_nLeastUs = 0; // least (arrival - line) in it
    int m_nInWindow = 0;
    int64_t m_nErrorUs = 0;
};

} // namespace arqrx
