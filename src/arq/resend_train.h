#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>

#include "arq/built_packet.h"

// What looking ahead over a stretch of a request's list has found: what becomes of each number, and the
// packets that may leave in one go. Nothing of it counts before they have left.
//
// Threads: the listen thread, on its stack.
class ResendTrain {
public:
    static constexpr uint32_t MOST_NUMBERS = 64;

    enum class Finding : uint8_t { Skipped, NotInBuffer, Resend };

    ResendTrain() = default;
    ResendTrain(const ResendTrain&) = delete;
    ResendTrain& operator=(const ResendTrain&) = delete;

    // The next number gets no packet.
    void Pass(Finding finding) { m_findings[m_nNumbers++] = finding; }

    // The next number gets this packet, which stays as it is until the train has left.
    void Take(PacketBuffer* packet, uint32_t slotIndex);

    // A copy that lives as long as the train, and is overwritten by the next one unless it is taken.
    PacketBuffer* Copy(const BuiltPacket& built);

    // Whether a packet of that slot is taken. May say so of another slot, but never misses one.
    bool MayHave(uint32_t slotIndex) const { return m_slots[slotIndex % m_slots.size()]; }

    uint32_t Numbers() const { return m_nNumbers; }
    Finding At(uint32_t number) const { return m_findings[number]; }

    // The packets, in the order of their numbers.
    PacketBuffer* const* Packets() const { return m_packets; }
    uint32_t Count() const { return m_nPackets; }

private:
    Finding m_findings[MOST_NUMBERS]; // of the numbers looked at
    PacketBuffer* m_packets[MOST_NUMBERS]; // of those taken
    uint32_t m_nNumbers = 0;
    uint32_t m_nPackets = 0;
    // Numbers of one request are seldom further apart; two that share a bit only end a train early.
    std::bitset<1024> m_slots;
    alignas(ResendCopy)
        std::byte m_copies[MOST_NUMBERS][sizeof(ResendCopy)]; // made one by one: most engines need none
};
