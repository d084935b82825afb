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
    m_slots.Mark(index);
    return &slot;
}

} // namespace arqrx
