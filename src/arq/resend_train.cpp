#include "arq/resend_train.h"

#include <new>
#include <type_traits>

static_assert(std::is_trivially_destructible_v<ResendCopy>); // the room for the copies is never cleared

void ResendTrain::Take(PacketBuffer* packet, uint32_t slotIndex)
{
    m_packets[m_nPackets++] = packet;
    m_slots.set(slotIndex % m_slots.size());
    Pass(Finding::Resend);
}

PacketBuffer* ResendTrain::Copy(const BuiltPacket& built)
{
    return &(new (m_copies[m_nPackets]) ResendCopy(built))->record;
}
