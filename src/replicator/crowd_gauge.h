#pragma once

#include <cstdint>

// Tells whether datagrams keep waiting at a socket, so that soon the kernel will drop some, anybody's.
// Looking costs a system call, so it is done only where datagrams come without a break. What was crowded once
// counts so for a while: under a flood the queue is short for a moment after each time that it was emptied.
//
// Threads: the listen thread. Times are milliseconds of a steady clock.
class CrowdGauge {
public:
    static constexpr uint32_t ARRIVALS_A_LOOK = 16;
    static constexpr uint32_t CROWDED_BYTES
        = 32768; // of kernel memory; some 40 datagrams of the shortest kind
    static constexpr uint32_t HOLD_MS = 1000;

    // So many datagrams were read, and more may be there. True when it is time for a look.
    bool OnArrivals(uint32_t count);
    // The socket was found empty.
    void OnEmpty() { m_nWithoutBreak = 0; }
    // A look has found so much kernel memory in use by what waits.
    void OnLook(uint32_t waitingBytes, uint32_t nowMs);

    bool IsCrowded(uint32_t nowMs);

private:
    uint32_t m_nWithoutBreak = 0; // datagrams since then or since the last look
    bool m_bCrowded = false;
    uint32_t m_nCrowdedMs = 0; // when it was last seen
};
