#pragma once

#include <cstdint>

#include "simulation/config.h"
#include "simulation/random.h"

namespace simulation {

// One direction of one link. It decides what becomes of each datagram: lost, alone or in a burst, late, so that
// others overtake it, or doubled.
class LinkModel {
public:
    struct Fate {
        int copies = 0; // 0: lost
        int64_t delaysUs[2] = { 0, 0 };
    };

    LinkModel(const LinkFaults& faults, int64_t delayUs, Random random)
        : m_faults(faults),
          m_nDelayUs(delayUs),
          m_random(random)
    {
    }

    Fate Decide();
    void EndFaults()
    {
        m_faults = {};
        m_nBurstLeft = 0;
    }

private:
    bool IsLost();
    int64_t DrawDelay();

    LinkFaults m_faults;
    int64_t m_nDelayUs;
    Random m_random;
    int64_t m_nBurstLeft = 0; // datagrams that the present burst still takes
};

} // namespace simulation
