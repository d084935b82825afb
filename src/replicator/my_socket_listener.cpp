#include "replicator/my_socket_listener.h"

#include "arq/datagram_kind.h"
#include "pacing/ms_clock.h"
#include "replicator/arq_send_replicator.h"

int MySocketListener::OnPacket(PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet)
{
    const uint32_t streamId = ReadStreamTag(packet->Data(), packet->Length()).streamId;
    if (m_mode == Mode::Pings)
        return m_replicator.ProcessPing(packet, addressNet, portNet, streamId);
    const uint32_t nowMs = GetSteadyMs();
    return m_replicator.ProcessRequest(packet, addressNet, portNet, streamId, { nowMs, IsCrowded(nowMs) });
}
