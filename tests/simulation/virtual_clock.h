#pragma once

#include <cstdint>

namespace simulation {

// Virtual time. The run's own time starts at 0 and only goes on; the steady clock and the wall clock show it with
// an offset, and the wall clock's can be stepped.
class VirtualClock {
public:
    VirtualClock(int64_t steadyStartUs, int64_t wallStartUs)
        : m_nSteadyStartUs(steadyStartUs),
          m_nWallOffsetUs(wallStartUs)
    {
    }

    int64_t NowUs() const { return m_nNowUs; }
    int64_t SteadyUs() const { return m_nSteadyStartUs + m_nNowUs; }
    int64_t WallUs() const { return m_nWallOffsetUs + m_nNowUs; }

    void AdvanceTo(int64_t nowUs) { m_nNowUs = nowUs; }
    void StepWall(int64_t byUs) { m_nWallOffsetUs += byUs; }

private:
    int64_t m_nNowUs = 0;
    int64_t m_nSteadyStartUs;
    int64_t m_nWallOffsetUs;
};

// The 90 kHz media clock of a wall-clock time, counted apart from the code under test.
inline uint32_t TicksOf(int64_t wallUs)
{
    const int64_t seconds = wallUs / 1000000;
    return static_cast<uint32_t>(
        static_cast<uint64_t>(seconds) * 90000 + static_cast<uint64_t>(wallUs % 1000000) * 9 / 100);
}

} // namespace simulation
