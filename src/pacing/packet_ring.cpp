#include "pacing/packet_ring.h"

#include "input/packet_buffer.h"

PacketRing::PacketRing(bool& ok, int32_t capacity) : m_ring(ok, capacity) {}

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
    return m_ring.Front();
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
    return m_ring.Count();
}

bool PacketRing::Contains(const PacketBuffer* packet)
{
    const MutexLock lock(m_ringMutex);
    return m_ring.Contains(packet);
}

bool PacketRing::Put(PacketBuffer* packet)
{
    const MutexLock lock(m_ringMutex);
    return m_ring.Put(packet);
}

PacketBuffer* PacketRing::Get()
{
    const MutexLock lock(m_ringMutex);
    return m_ring.Get();
}

int32_t PacketRing::Counted(const PacketBuffer& packet) const
{
    return packet.TotalLength() - m_nHeaderBytes;
}
