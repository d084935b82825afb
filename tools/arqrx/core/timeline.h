#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "arqrx/core/clock_follower.h"

namespace arqrx {

// A part of the stream whose times and numbers hang together. Play-out begins afresh with each.
struct Stretch {
    uint64_t firstIndex = 0; // packets are counted on from stretch to stretch: an index has no jumps
    uint64_t numberShift
        = 0; // number = index + shift: numbers have jumps, so that their lower 16 bits are the wire's
    ClockFollower clock;
    int64_t fallUs = 0; // the line fell by this (negative) since packets were given their times
};

// The stretches of which something is still to be played out, few of them: a new one needs a new cause.
class Timeline {
public:
    bool IsEmpty() const { return m_nCount == 0; }
    bool IsFull() const { return m_nCount == m_stretches.size(); }
    // Not when it is full.
    void Add(const Stretch& stretch);

    Stretch& Newest() { return m_stretches[m_nCount - 1]; }
    const Stretch& Newest() const { return m_stretches[m_nCount - 1]; }
    // The stretch that an index belongs to; the oldest left when its own is gone.
    Stretch& Of(uint64_t index);
    // Play-out has come to this index: older stretches go. Returns whether one went.
    bool PassTo(uint64_t index);

private:
    std::array<Stretch, 8> m_stretches;
    size_t m_nCount = 0;
};

} // namespace arqrx
