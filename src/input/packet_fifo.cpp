#include "input/packet_fifo.h"

#include <new>

PacketFifo::PacketFifo(bool& ok, int32_t capacity)
    : m_slots(new (std::nothrow) PacketBuffer*[static_cast<size_t>(capacity)]),
      m_nCapacity(capacity)
{
    if (!m_slots) {
        ok = false;
        m_nCapacity = 0;
    }
}

bool PacketFifo::Put(PacketBuffer* packet)
{
    if (IsFull())
        return false;
    Slot(m_nWrite) = packet;
    m_nWrite = (m_nWrite + 1) % m_nCapacity;
    ++m_nCount;
    return true;
}

PacketBuffer* PacketFifo::Get()
{
    if (IsEmpty())
        return nullptr;
    PacketBuffer* packet = Slot(m_nRead);
    m_nRead = (m_nRead + 1) % m_nCapacity;
    --m_nCount;
    return packet;
}

PacketBuffer* PacketFifo::Front() const
{
    return IsEmpty() ? nullptr : Slot(m_nRead);
}

bool PacketFifo::Contains(const PacketBuffer* packet) const
{
    for (int32_t i = 0; i < m_nCount; ++i) {
        if (Slot((m_nRead + i) % m_nCapacity) == packet)
            return true;
    }
    return false;
}
