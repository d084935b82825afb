#pragma once

#include <cstdint>

#include "base/plain_word.h"

// Milliseconds during which the listen thread was there to hear pings, modulo 2^32: a steady clock that
// stands still while that thread stands in a send to a receiver that blocks. Silence is measured by it, so
// nobody is dropped for pings that lie unread.
//
// Threads: the listen thread calls OnRound and Now, the keep-alive thread Now. `steadyMs`: the steady clock.
class HeardClock {
public:
    // The most that one round of the listen thread counts: its wait for
    // datagrams and some time to serve them.
    static constexpr uint32_t ROUND_MS = 300;

    // The listen thread begins a round: it will take what is there to be read.
    void OnRound(uint32_t steadyMs);

    uint32_t Now(uint32_t steadyMs) const;

private:
    PlainWord<uint32_t> m_nDeafMs { 0 }; // all that was not counted so far
    // When the present round began. Published: whoever sees it has all before it taken off. Who sees the
    // older one with the newer sum only sees an earlier time.
    PublishedWord<uint32_t> m_nRoundMs { 0 };
};
