#include "pacing/pacer_cb.h"

#include <cstdio>

#include "replicator/arq_send_replicator.h"

PacerCB::~PacerCB()
{
    if (m_pPacer && m_pPacer->Overflows() != 0)
        printf("Pacer OverFlows %d\n", static_cast<int32_t>(m_pPacer->Overflows()));
}

bool PacerCB::Send(PacketBuffer* packet)
{
    (void)m_pReplicator->SendPacket(packet);
    return true;
}

void PacerCB::SendTogether(PacketBuffer* const* packets, int32_t count)
{
    (void)m_pReplicator->SendPackets(packets, count);
}
