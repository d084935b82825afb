#pragma once

#include <cstdint>

// Tells when somebody has set the wall clock, by a clock that nobody sets. A schedule that was made by the
// wall clock moves by the step: otherwise a clock set back leaves it far in the future, and one set forward
// makes it work off all the time that never passed. What is slewed, or set by less than a second, is no step:
// schedules follow the wall clock there.
//
// Threads: none of its own; belongs to the thread that keeps the schedule.
class WallClockSteps {
public:
    static constexpr uint32_t LEAST_STEP_MS = 1000;

    // By how much the wall clock was set since the last look, in milliseconds modulo 2^32; 0 at the first
    // look. Both times are taken now, in milliseconds modulo 2^32. A thread that is stopped between the two
    // readings sees a step, and the opposite one at its next look.
    uint32_t Look(uint32_t wallMs, uint32_t steadyMs);

private:
    bool m_bHasLooked = false;
    uint32_t m_nWallMs = 0; // at the last look
    uint32_t m_nSteadyMs = 0;
};
