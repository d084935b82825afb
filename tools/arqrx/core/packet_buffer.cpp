#include "arqrx/core/packet_buffer.h"

#include <algorithm>

namespace arqrx {

Slot* PacketBuffer::Store(uint64_t index, std::span<const uint8_t> datagram)
{
    uint8_t* bytes = m_pool.Take();
    if (bytes == nullptr)
        return nullptr;
    std::ranges::copy(datagram, bytes);
    Slot& slot = m_slots.Place(index);
    slot = Slot {};
    slot.index = index;
    slot.bytes = bytes;
    slot.length = static_cast<uint16_t>(datagram.size());
    slot.fate = Fate::Here;
    m_slots.Mark(index);
    return &slot;
}

void PacketBuffer::NoteLost(uint64_t index)
{
    Slot& slot = m_slots.Place(index);
    slot = Slot {};
    slot.index = index;
    slot.fate = Fate::Lost;
}

Fate PacketBuffer::FateOf(uint64_t index)
{
    const Slot* slot = m_slots.Find(index);
    return slot == nullptr ? Fate::None : slot->fate;
}

} // namespace arqrx
