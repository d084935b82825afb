// The packet path: one input packet to every stream. No lock and no allocation here; a read section keeps
// the streams alive while others add and remove.
#include "arq/arq_send.h"
#include "arq/wire.h"
#include "replicator/arq_send_replicator.h"

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

} // namespace

int ArqSendReplicator::SendPacket(PacketBuffer* packet)
{
    if (!m_bRunning)
        return 1;
    m_rx.m_nRxPackets.Add(1);
    m_rx.m_nRxBytes.Add(static_cast<uint32_t>(packet->Length()));
    if (m_bUdpInputMode)
        return SendRaw(packet->Data(), packet->Length());

    // Anything shorter has no RTP header: it goes out as it came and cannot be asked for again.
    const bool isRtp = packet->Length() >= MEDIA_HEADER_BYTES;
    if (isRtp) {
        auto* header = reinterpret_cast<MediaHeader*>(packet->Data());
        header->timestamp.Set(m_pNetSyncVid->LocalNow());
        m_rx.CountSequence(header->seq.Get());
    }
    const bool isDropped = DecideDrop();
    const StreamTable::View view(m_table);
    if (!isDropped)
        SendToAll(view, packet);
    if (isRtp)
        StoreInAll(view, packet);
    return 1;
}

int ArqSendReplicator::SendRaw(uint8_t* data, int32_t length)
{
    if (!m_bRunning || !m_bUdpInputMode) // without that mode the engines build no headers
        return 1;
    const auto seq = static_cast<uint16_t>(m_usSeqNum.fetch_add(1, std::memory_order_relaxed) + 1);
    const bool isDropped = DecideDrop();
    const StreamTable::View view(m_table);
    if (m_pMulticastStream)
        SendRawMulticast(view, data, length, seq, isDropped);
    else
        SendRawUnicast(view, data, length, seq, isDropped);
    return 1;
}

bool ArqSendReplicator::DecideDrop()
{
    if (!StepImpairment(m_impair))
        return false;
    m_nDropPacket.Add(1);
    return true;
}

// With a multicast destination only the group gets first sendings.
void ArqSendReplicator::SendToAll(const StreamTable::View& view, PacketBuffer* packet)
{
    if (m_pMulticastStream) {
        (void)m_pMulticastStream->SendData(packet);
        return;
    }
    view.ForEach([packet](MyArqSendCB& stream) { (void)stream.SendData(packet); });
}

void ArqSendReplicator::SendRawMulticast(
    const StreamTable::View& view, uint8_t* data, int32_t length, uint16_t seq, bool isDropped)
{
    view.ForEach([=](MyArqSendCB& stream) { (void)stream.m_pEngine->BuildAndStore(data, length, seq); });
    PacketBuffer* record = m_pMulticastStream->m_pEngine->BuildAndStore(data, length, seq);
    if (!isDropped)
        (void)m_pMulticastStream->SendData(record);
}
