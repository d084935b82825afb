#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

namespace arqrx {

// The time from us to the proxy and back, smoothed as in RFC 6298, 2, without its clock granularity.
class RoundTrip {
public:
    bool IsKnown() const { return m_nSmoothedUs >= 0; }
    int64_t SmoothedUs() const { return m_nSmoothedUs; } // -1: not known yet
    int64_t VariationUs() const { return m_nVariationUs; }
    // Hardly any answer takes longer. Of the variation, which is large before much is known, no more than half a way.
    int64_t LongUs() const { return m_nSmoothedUs + std::min(4 * m_nVariationUs, m_nSmoothedUs / 2); }

    void Add(int64_t sampleUs);

private:
    int64_t m_nSmoothedUs = -1;
    int64_t m_nVariationUs = 0;
};

// When to measure the round trip by an echo, and which of them came back. At first in quick succession, so that the
// first gap finds it known; later once a second.
class EchoSchedule {
public:
    static constexpr int64_t QUICK_US = 100'000;
    static constexpr int64_t STEADY_US = 1'000'000;
    static constexpr int QUICK_ECHOES = 20; // unanswered ones, then as slowly as if answered

    int64_t NextUs() const { return m_nNextUs; }
    void BeginAt(int64_t nowUs) { m_nNextUs = nowUs; }

    // An echo leaves now. Returns the number to write into it, never 0.
    uint64_t Send(int64_t nowUs);
    // One came back: how long it took; -1 when it is none of those that are under way.
    int64_t Back(uint64_t number, int64_t nowUs);

private:
    struct Sent {
        uint64_t number = 0; // 0: answered, or never sent
        int64_t timeUs = 0;
    };
    std::array<Sent, 32> m_sent;
    uint64_t m_nNumber = 0;
    int64_t m_nNextUs = 0;
    bool m_bAnswered = false;
};

} // namespace arqrx
