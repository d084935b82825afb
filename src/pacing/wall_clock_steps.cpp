#include "pacing/wall_clock_steps.h"

namespace {

// Either way round. A step of 2^31 ms has no sign, but is one all the same.
bool IsStep(uint32_t differenceMs)
{
    constexpr uint32_t MOST_MS = WallClockSteps::LEAST_STEP_MS - 1;
    return differenceMs + MOST_MS > 2 * MOST_MS;
}

} // namespace

uint32_t WallClockSteps::Look(uint32_t wallMs, uint32_t steadyMs)
{
    const uint32_t differenceMs = (wallMs - m_nWallMs) - (steadyMs - m_nSteadyMs);
    const bool isStep = m_bHasLooked && IsStep(differenceMs);
    m_bHasLooked = true;
    m_nWallMs = wallMs;
    m_nSteadyMs = steadyMs;
    return isStep ? differenceMs : 0;
}
