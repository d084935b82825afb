#pragma once

#include <cstdint>
#include <memory>

struct PacketBuffer;

// Ring of packet pointers with a fixed number of places, first in, first out. It holds what it is given, null
// too, and owns none of it.
//
// Threads: none of its own; whoever shares one locks around every call.
class PacketFifo {
public:
    // Clears ok when memory is short; such a ring has no place: it is always both full and empty.
    PacketFifo(bool& ok, int32_t capacity);

    // Appends the packet; false when the ring is full.
    bool Put(PacketBuffer* packet);

    // Takes the oldest packet; null when the ring is empty.
    PacketBuffer* Get();

    // The oldest packet, left in its place; null when the ring is empty.
    PacketBuffer* Front() const;

    bool Contains(const PacketBuffer* packet) const;
    bool IsFull() const { return m_nCount == m_nCapacity; }
    bool IsEmpty() const { return m_nCount == 0; }
    int32_t Count() const { return m_nCount; }

private:
    PacketBuffer*& Slot(int32_t index) const { return m_slots[static_cast<size_t>(index)]; }

    std::unique_ptr<PacketBuffer*[]> m_slots;
    int32_t m_nCapacity;
    int32_t m_nWrite = 0; // index of the next free slot
    int32_t m_nRead = 0; // index of the oldest packet
    int32_t m_nCount = 0;
};
