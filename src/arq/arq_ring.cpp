#include "arq/arq_ring.h"

#include <new>

ArqRing::ArqRing(bool& ok, uint32_t size)
    : m_nSize(size),
      m_nMask(size - 1),
      m_slots(new (std::nothrow) ArqSlot[size]),
      m_retransmitted(new (std::nothrow) PlainWord<bool>[size])
{
    if (!m_slots || !m_retransmitted)
        ok = false;
}

void ArqRing::Store(uint16_t seq, PacketBuffer* packet, uint32_t timestampTicks)
{
    const uint32_t index = Index(seq);
    FillSlot(m_slots[index], m_retransmitted[index], packet, timestampTicks);
}

void ArqRing::Clear()
{
    for (uint32_t i = 0; i < m_nSize; ++i) {
        m_slots[i].packet.Store(nullptr);
        m_slots[i].resendNotBeforeTicks = 0;
        m_slots[i].timestampTicks = 0;
        m_retransmitted[i] = false;
    }
}
