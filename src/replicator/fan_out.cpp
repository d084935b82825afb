#include "replicator/fan_out.h"

#include "arq/arq_send.h"
#include "arq/media_header.h"
#include "arq/net_sync_vid.h"
#include "input/packet_buffer.h"
#include "replicator/my_arq_send_cb.h"
#include "replicator/shared_send.h"

namespace {

// After all sendings: all engines share this packet, and the first resend changes its payload type.
// A withheld packet is stored too, so that receivers can recover it.
void StoreInAll(const StreamTable::View& view, PacketBuffer* packet)
{
    view.ForEach([packet](MyArqSendCB& stream) { stream.m_pEngine->StoreSent(packet); });
}

void SendRawUnicast(
    const StreamTable::View& view, uint8_t* data, int32_t length, uint16_t seq, bool isDropped)
{
    view.ForEach([=](MyArqSendCB& stream) {
        PacketBuffer* record = stream.m_pEngine->BuildAndStore(data, length, seq);
        if (!isDropped)
            (void)stream.SendData(record);
    });
}

// Neighbours in the table that send from one socket get the packet in one call.
void SendToEach(const StreamTable::View& view, PacketBuffer* packet)
{
    for (int32_t i = 0; i < view.Count();) {
        const int32_t sharing = CountSharing(view, i);
        const int32_t sent = sharing > 1 ? SendShared(view, i, sharing, *packet) : 0;
        i += sent;
        if (sent < sharing)
            (void)view.At(i++).SendData(packet);
    }
}

} // namespace

int FanOut::SendPackets(PacketBuffer* const* packets, int32_t count)
{
    for (int32_t i = 0; i < count; ++i)
        (void)SendOne(packets[i]);
    return 1;
}

int FanOut::SendOne(PacketBuffer* packet)
{
    if (!m_parts.bRunning)
        return 1;
    m_parts.rx.m_nRxPackets.Add(1);
    m_parts.rx.m_nRxBytes.Add(static_cast<uint32_t>(packet->Length()));
    if (m_parts.udpInputMode)
        return SendRaw(packet->Data(), packet->Length());

    StampAndCount(*packet);
    const bool isDropped = DecideDrop();
    const StreamTable::View view(m_parts.table);
    if (!isDropped)
        SendToAll(view, packet);
    StoreInAll(view, packet);
    return 1;
}

int FanOut::SendRaw(uint8_t* data, int32_t length)
{
    if (!m_parts.bRunning || !m_parts.udpInputMode) // without that mode the engines build no headers
        return 1;
    const auto seq = static_cast<uint16_t>(m_usSeqNum.fetch_add(1, std::memory_order_relaxed) + 1);
    const bool isDropped = DecideDrop();
    const StreamTable::View view(m_parts.table);
    if (m_pMulticastStream != nullptr)
        SendRawMulticast(view, data, length, seq, isDropped);
    else
        SendRawUnicast(view, data, length, seq, isDropped);
    return 1;
}

// The header's bytes lie in the packet's slice however short the datagram is; it leaves with its own length.
void FanOut::StampAndCount(const PacketBuffer& packet)
{
    MediaHeader& header = HeaderOf(packet);
    header.timestamp.Set(m_parts.clock.LocalNow());
    m_parts.rx.CountSequence(header.seq.Get());
}

bool FanOut::DecideDrop()
{
    if (!StepImpairment(m_parts.impair))
        return false;
    m_parts.nDropPacket.Add(1);
    return true;
}

// With a multicast destination only the group gets first sendings.
void FanOut::SendToAll(const StreamTable::View& view, PacketBuffer* packet)
{
    if (m_pMulticastStream != nullptr)
        (void)m_pMulticastStream->SendData(packet);
    else
        SendToEach(view, packet);
}

void FanOut::SendRawMulticast(
    const StreamTable::View& view, uint8_t* data, int32_t length, uint16_t seq, bool isDropped)
{
    view.ForEach([=](MyArqSendCB& stream) { (void)stream.m_pEngine->BuildAndStore(data, length, seq); });
    PacketBuffer* record = m_pMulticastStream->m_pEngine->BuildAndStore(data, length, seq);
    if (!isDropped)
        (void)m_pMulticastStream->SendData(record);
}
