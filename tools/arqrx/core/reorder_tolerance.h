#pragma once

#include <cstdint>

namespace arqrx {

// How long a gap waits before it counts as missing, since packets may overtake each other on the way. It follows what
// first sendings show: how evenly they arrive, how close they are, and how late the last ones were that came behind a
// higher number.
class ReorderTolerance {
public:
    // A first sending came, in order or not, so much later than the fastest packet with its timestamp would have.
    void AddArrival(int64_t behindUs);
    // The newest number is so far ahead of the one before, by timestamps and in numbers.
    void AddSpacing(int64_t mediaUs, uint64_t numbers);
    // A first sending filled a gap that was noticed so long ago.
    void AddLate(int64_t latenessUs, int64_t nowUs);
    // Play-out begins afresh: arrivals before and after are not to be compared.
    void ForgetLast() { m_bHasArrival = m_bHasNewest = false; }

    int64_t JitterUs() const { return static_cast<int64_t>(m_fJitterUs); } // RFC 3550, 6.4.1
    // Between two numbers, by their timestamps, smoothed; -1: not known yet.
    double SpacingUs() const { return m_fSpacingUs; }
    int64_t Us(int64_t nowUs) const;

private:
    double LateUs(int64_t nowUs) const;

    bool m_bHasArrival = false;
    bool m_bHasNewest = false;
    int64_t m_nBehindUs = 0; // of the last arrival
    double m_fJitterUs = 0;
    double m_fSpacingUs = -1;
    double m_fLateUs = 0; // at m_nLateAtUs; fades
    int64_t m_nLateAtUs = 0;
};

} // namespace arqrx
