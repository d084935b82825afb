#include "arqrx/core/clock_follower.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace arqrx {

namespace {

constexpr int64_t WINDOW_US = 2'000'000;
constexpr int64_t LONGEST_WINDOW_US = 10'000'000; // however few packets it has
constexpr int FEWEST_IN_WINDOW = 8;

// Critically damped: an error is gone in about a minute without overshooting, and a drift of 500 ppm is never behind
// by more than some milliseconds.
constexpr double BEND_GAIN = 0.25;
constexpr double RATE_GAIN = BEND_GAIN * BEND_GAIN / 4;
constexpr double STEEPEST_BEND = 2000e-6; // nobody hears or sees a clock that is off by so much
constexpr double FASTEST_RATE = 1000e-6; // of two clocks; crystals stay below 100e-6
constexpr int64_t LARGEST_DRIFT_ERROR_US = 10'000; // a larger error is no drift, and must not become one

int64_t TicksToUs(int64_t ticks)
{
    return ticks * 100 / 9;
}

int64_t UsToTicks(int64_t us)
{
    return us * 9 / 100;
}

int64_t Scaled(int64_t us, double factor)
{
    return std::llround(static_cast<double>(us) * factor);
}

} // namespace

ClockFollower::ClockFollower(uint32_t timestamp, int64_t arrivalUs)
    : m_nFromMediaUs(TicksToUs(timestamp)),
      m_nFromLocalUs(arrivalUs)
{
    BeginWindow(arrivalUs);
}

int64_t ClockFollower::MediaUs(uint32_t timestamp, int64_t nowUs) const
{
    const int64_t expected = UsToTicks(m_nFromMediaUs + (nowUs - m_nFromLocalUs));
    const auto difference = static_cast<int32_t>(timestamp - static_cast<uint32_t>(expected));
    return TicksToUs(expected + difference);
}

int64_t ClockFollower::LocalUs(int64_t mediaUs) const
{
    const int64_t elapsedUs = mediaUs - m_nFromMediaUs;
    const int64_t bentUs = std::clamp<int64_t>(elapsedUs, 0, WINDOW_US);
    return m_nFromLocalUs + elapsedUs + Scaled(elapsedUs, m_fRate) + Scaled(bentUs, m_fBend);
}

int64_t ClockFollower::Add(int64_t mediaUs, int64_t arrivalUs)
{
    const int64_t errorUs = arrivalUs - LocalUs(mediaUs);
    if (!m_bSettled) {
        const int64_t fallUs = std::min<int64_t>(errorUs, 0);
        m_nFromLocalUs += fallUs;
        BeginWindow(arrivalUs);
        return fallUs;
    }
    m_nLeastUs = std::min(m_nLeastUs, errorUs);
    ++m_nInWindow;
    const int64_t elapsedUs = arrivalUs - m_nWindowUs;
    if (elapsedUs >= LONGEST_WINDOW_US || (elapsedUs >= WINDOW_US && m_nInWindow >= FEWEST_IN_WINDOW))
        EndWindow(mediaUs, arrivalUs);
    return 0;
}

void ClockFollower::EndWindow(int64_t mediaUs, int64_t arrivalUs)
{
    m_nErrorUs = m_nLeastUs;
    m_nFromLocalUs = LocalUs(mediaUs);
    m_nFromMediaUs = mediaUs;
    const double errorRate = static_cast<double>(m_nErrorUs) / static_cast<double>(WINDOW_US);
    if (std::abs(m_nErrorUs) <= LARGEST_DRIFT_ERROR_US)
        m_fRate = std::clamp(m_fRate + RATE_GAIN * errorRate, -FASTEST_RATE, FASTEST_RATE);
    m_fBend = std::clamp(BEND_GAIN * errorRate, -STEEPEST_BEND, STEEPEST_BEND);
    BeginWindow(arrivalUs);
}

void ClockFollower::BeginWindow(int64_t arrivalUs)
{
    m_nWindowUs = arrivalUs;
    m_nLeastUs = std::numeric_limits<int64_t>::max();
    m_nInWindow = 0;
}

} // namespace arqrx
