#pragma once

#include <cstdint>

#include "base/unique_fd.h"

// Keeps a second proxy with the same instance number from starting: a bound UDP port, held until the
// object is destroyed or the process ends.
class InstanceLock {
public:
    // Takes the lock. False when another process holds it or no socket can be had; the second is reported.
    bool Take(int32_t instance);

    // The UDP port that is the lock of an instance.
    static uint16_t Port(int32_t instance);

private:
    UniqueFd m_socket;
};
