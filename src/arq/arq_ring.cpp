#include "arq/arq_ring.h"

#include <new>

ArqRing::ArqRing(bool& ok, uint32_t size)
    : m_nSize(size),
      m_nMask(size - 1),
      m_slots(new (std::nothrow) ArqSlot[size]),
      m_retransmitted(new (std::nothrow) PlainWord<uint8_t>[size])
{
    if (!m_slots || !m_retransmitted)
        ok = false;
}

// The pointer goes last: a reader that sees the new packet also sees its time and a cleared flag.
void ArqRing::Store(uint16_t seq, PacketBuffer* packet, uint32_t timestamp)
{
    const uint32_t index = Index(seq);
    ArqSlot& slot = m_slots[index];
    slot.resendNotBefore = 0;
    slot.timestamp = timestamp;
    m_retransmitted[index] = 0;
    slot.packet.Store(packet);
}

void ArqRing::Clear()
{
    for (uint32_t i = 0; i < m_nSize; ++i) {
        m_slots[i].packet.Store(nullptr);
        m_slots[i].resendNotBefore = 0;
        m_slots[i].timestamp = 0;
        m_retransmitted[i] = 0;
    }
}
