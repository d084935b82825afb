#pragma once

#include <cstdint>
#include <optional>

#include "arqctl/core/meter.h"

namespace arqctl {

// Whether a proxy's deliberate loss is on, as far as its figures and what was done here tell. Times are microseconds of the
// monotonic clock. Threads: one thread's own.
class LossSign {
public:
    static constexpr int64_t SEEN_US = 60'000'000; // so long a withheld packet is a sign
    static constexpr int64_t SETTLING_US
        = 5'000'000; // what was withheld before a switch is counted a little later

    // Once a second, with what is known of the proxy.
    void Take(const Totals& totals, int64_t nowUs);
    // It was switched from here, and is so now.
    void Set(bool isOn, int64_t nowUs);

    // Empty: not known. A receiver that fetches what was withheld hides it.
    std::optional<bool> IsOn() const { return m_isOn; }

private:
    void TakeGrowth(int64_t nowUs);

    std::optional<bool> m_isOn;
    bool m_bSet = false; // from here, to what m_isOn says
    int64_t m_setUs = 0;
    int64_t m_seenUs = 0;
    std::optional<Totals> m_before;
};

} // namespace arqctl
