#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include "floor_packet.h"

// Packets from the receiving to the sending thread, one of each. A slot is free again once its packet was
// sent.
class FloorHandover {
public:
    // The sending thread sleeps on a bare futex, or on a condition with its mutex.
    explicit FloorHandover(bool wakeByCondition);

    // Receiving thread: how many slots are free, `wanted` at most. Waits while there is none.
    uint32_t FreeSlots(uint32_t wanted);

    // Receiving thread: the slot `ahead` behind the next free one; then hands over the first `count`.
    FloorPacket& Free(uint32_t ahead) { return Slot(m_nPut, ahead); }
    void Put(uint32_t count);

    // Sending thread: waits for a packet; returns how many wait.
    uint32_t Wait();

    // Sending thread: the packet `ahead` behind the oldest one; then frees the slots of the first `count`.
    FloorPacket& Waiting(uint32_t ahead) { return Slot(m_nTaken, ahead); }
    void Done(uint32_t count) { m_nTaken.fetch_add(count); }

private:
    static constexpr uint32_t SLOTS = 512; // the proxy's queue

    FloorPacket& Slot(const std::atomic<uint32_t>& from, uint32_t ahead)
    {
        return m_slots[(from.load(std::memory_order_relaxed) + ahead) % SLOTS];
    }
    long Futex(int operation, uint32_t value);

    std::vector<FloorPacket> m_slots;
    const bool m_bWakeByCondition;
    std::mutex m_mutex;
    std::condition_variable m_condition;
    alignas(64) std::atomic<uint32_t> m_nPut { 0 }; // so far; the futex
    alignas(64) std::atomic<uint32_t> m_nTaken { 0 };
    std::atomic<bool> m_bSleeps { false };
};
