#pragma once

#include <cstdint>
#include <span>

#include "arqrx/core/block_pool.h"
#include "arqrx/core/number_ring.h"

namespace arqrx {

struct Slot {
    uint64_t index = 0;
    int64_t dueUs = 0; // of its stretch before the line fell, see Stretch::fallUs; final once it is released
    uint8_t* bytes = nullptr; // null once it is played out
    uint16_t length = 0;
    bool isResend = false;
};

// The packets that are here, by number, and for a while which were before them.
class PacketBuffer {
public:
    explicit PacketBuffer(size_t mostPackets) : m_pool(mostPackets) {}

    bool Reach(uint64_t first, uint64_t last) { return m_slots.Reach(first, last); }
    // Copies a packet into its place; null when as many are here as may.
    Slot* Store(uint64_t index, std::span<const uint8_t> datagram);
    // Takes it out of the search; its bytes stand until Free.
    void Unmark(uint64_t index) { m_slots.Unmark(index); }
    void Free(uint8_t* bytes) { m_pool.Give(bytes); }

    // Is it here, or was it played out not long ago.
    bool Knows(uint64_t index) { return m_slots.Find(index) != nullptr; }
    Slot& At(uint64_t index) { return m_slots.Place(index); }
    // The first packet that is here of [first, end), or `end`.
    uint64_t Next(uint64_t first, uint64_t end) const { return m_slots.NextMarked(first, end); }
    uint64_t Count() const { return m_pool.Out(); }

private:
    NumberRing<Slot> m_slots; // marked: the packet is here
    BlockPool m_pool;
};

} // namespace arqrx
