#include "pacing/packet_ring.h"

#include <new>

#include "input/packet_buffer.h"

PacketRing::PacketRing(bool& ok, int32_t capacity)
    : m_slots(new (std::nothrow) PacketBuffer*[static_cast<size_t>(capacity)]),
      m_nCapacity(capacity)
{
    if (!m_slots) {
        ok = false;
        m_nCapacity = 0;
    }
}

bool PacketRing::Push(PacketBuffer* packet, bool skipDuplicate)
{
    const MutexLock lock(m_bytesMutex);
    if (skipDuplicate && Contains(packet))
        return true;
    if (!Put(packet))
        return false;
    m_nBytes += Counted(*packet);
    return true;
}

PacketBuffer* PacketRing::Pop()
{
    const MutexLock lock(m_bytesMutex);
    PacketBuffer* packet = Get();
    if (packet != nullptr)
        m_nBytes -= Counted(*packet);
    return packet;
}

PacketBuffer* PacketRing::Peek()
{
    const MutexLock lock(m_ringMutex);
    return m_nCount > 0 ? m_slots[static_cast<size_t>(m_nRead)] : nullptr;
}

void PacketRing::Discard()
{
    while (Pop() != nullptr) {}
}

int32_t PacketRing::Bytes()
{
    const MutexLock lock(m_bytesMutex);
    return m_nBytes;
}

int32_t PacketRing::Count()
{
    const MutexLock lock(m_ringMutex);
    return m_nCount;
}

bool PacketRing::Contains(const PacketBuffer* packet)
{
    const MutexLock lock(m_ringMutex);
    for (int32_t i = 0; i < m_nCount; ++i) {
        if (m_slots[static_cast<size_t>((m_nRead + i) % m_nCapacity)] == packet)
            return true;
    }
    return false;
}

bool PacketRing::Put(PacketBuffer* packet)
{
    const MutexLock lock(m_ringMutex);
    if (m_nCount >= m_nCapacity)
        return false;
    m_slots[static_cast<size_t>(m_nWrite)] = packet;
    m_nWrite = (m_nWrite + 1) % m_nCapacity;
    ++m_nCount;
    return true;
}

PacketBuffer* PacketRing::Get()
{
    const MutexLock lock(m_ringMutex);
    if (m_nCount <= 0)
        return nullptr;
    PacketBuffer* packet = m_slots[static_cast<size_t>(m_nRead)];
    m_nRead = (m_nRead + 1) % m_nCapacity;
    --m_nCount;
    return packet;
}

int32_t PacketRing::Counted(const PacketBuffer& packet) const
{
    return packet.TotalLength() - m_nHeaderBytes;
}
