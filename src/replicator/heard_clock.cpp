#include "replicator/heard_clock.h"

#include <algorithm>

namespace {

// The part of a round that counts.
uint32_t Counted(uint32_t elapsedMs)
{
    return std::min(elapsedMs, HeardClock::ROUND_MS);
}

} // namespace

void HeardClock::OnRound(uint32_t steadyMs)
{
    const uint32_t elapsedMs = steadyMs - m_nRoundMs.Load();
    m_nDeafMs.Add(elapsedMs - Counted(elapsedMs));
    m_nRoundMs.Store(steadyMs);
}

uint32_t HeardClock::Now(uint32_t steadyMs) const
{
    const uint32_t roundMs = m_nRoundMs.Load();
    return roundMs + Counted(steadyMs - roundMs) - m_nDeafMs;
}
