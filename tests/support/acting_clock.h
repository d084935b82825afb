#pragma once

#include <functional>
#include <utility>

#include "support/fixed_clock.h"

namespace test_support {

// A fixed clock that does something when it is asked for the time: whoever reads it is held at that point of
// its work while another thread's work happens.
class ActingClock : public FixedClock {
public:
    using FixedClock::FixedClock;

    // Once, at the next reading; readings made by the action itself do nothing more.
    void AtNextReading(std::function<void()> action) { m_action = std::move(action); }

    uint32_t LocalNow() override
    {
        if (const auto action = std::exchange(m_action, nullptr))
            action();
        return FixedClock::LocalNow();
    }

private:
    std::function<void()> m_action;
};

} // namespace test_support
