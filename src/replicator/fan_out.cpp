#include "replicator/fan_out.h"

#include <algorithm>

#include "arq/arq_send.h"
#include "arq/arq_settings.h"
#include "arq/media_header.h"
#include "arq/net_sync_vid.h"
#include "input/packet_buffer.h"
#include "replicator/batch_progress.h"
#include "replicator/batch_send.h"
#include "replicator/my_arq_send_cb.h"
#include "replicator/shared_send.h"

namespace {

// Packets that came with their headers: all streams send and remember the same ones.
class RtpBatch {
public:
    void Add(PacketBuffer* packet, bool isDropped)
    {
        m_packets[m_nCount] = packet;
        m_passed[m_nCount++] = !isDropped;
    }

    int32_t Count() const { return m_nCount; }
    bool IsPassed(int32_t i) const { return m_passed[i]; }
    PacketBuffer* Record(const MyArqSendCB& /*stream*/, int32_t i) const { return m_packets[i]; }

    // After all sendings: all engines share this packet, and the first resend changes its payload type.
    // A withheld packet is stored too, so that receivers can recover it.
    void OnSent(const StreamTable::View& view, int32_t i) const
    {
        PacketBuffer* packet = m_packets[i];
        view.ForEach([packet](MyArqSendCB& stream) { stream.m_pEngine->StoreSent(packet); });
    }

private:
    PacketBuffer* m_packets[MOST_TOGETHER];
    bool m_passed[MOST_TOGETHER];
    int32_t m_nCount = 0;
};

// Payloads without headers: each stream's engine builds, and so remembers, its own records.
class RawBatch {
public:
    void Add(uint8_t* data, int32_t length, uint16_t seq, bool isDropped)
    {
        m_items[m_nCount++] = { data, length, seq, !isDropped };
    }

    int32_t Count() const { return m_nCount; }
    bool IsPassed(int32_t i) const { return m_items[i].isPassed; }
    PacketBuffer* Record(MyArqSendCB& stream, int32_t i) const
    {
        const Item& item = m_items[i];
        return stream.m_pEngine->BuildAndStore(item.data, item.length, item.seq);
    }
    void OnSent(const StreamTable::View& /*view*/, int32_t /*i*/) const {}

private:
    struct Item {
        uint8_t* data;
        int32_t length; // bytes
        uint16_t seq;
        bool isPassed;
    };

    Item m_items[MOST_TOGETHER];
    int32_t m_nCount = 0;
};

// The batch of one packet, or of none.
void SendOnly(MyArqSendCB& stream, RawBatch& batch)
{
    const StreamShare share(stream, batch);
    if (share.count == 1)
        (void)stream.SendData(share.packets[0]);
}

void Remember(MyArqSendCB& stream, RawBatch& batch)
{
    for (int32_t i = 0; i < batch.Count(); ++i)
        (void)batch.Record(stream, i);
}

// With a multicast destination only the group gets first sendings; the table's streams remember them.
template <typename Batch>
void SendToGroup(const StreamTable::View& view, MyArqSendCB& group, Batch& batch, BatchMark* mark)
{
    const StreamShare share(group, batch);
    for (int32_t done = 0; done < share.count;) {
        done += group.SendUnlessWaiting(share.packets + done, share.count - done);
        if (done == share.count)
            break;
        if (mark != nullptr)
            mark->End();
        (void)group.SendData(share.packets[done++]);
    }
    for (int32_t i = 0; i < batch.Count(); ++i)
        batch.OnSent(view, i);
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

// Such a batch needs no mark: what the engines build is remembered before it leaves.
void SendRawBatch(const StreamTable& table, MyArqSendCB* group, RawBatch& batch)
{
    const StreamTable::View view(table);
    if (group != nullptr) {
        view.ForEach([&batch](MyArqSendCB& stream) { Remember(stream, batch); });
        SendToGroup(view, *group, batch, nullptr);
    } else if (batch.Count() > 1) {
        BatchSend(view, batch, nullptr).Run();
    } else {
        view.ForEach([&batch](MyArqSendCB& stream) { SendOnly(stream, batch); });
    }
}

} // namespace

int FanOut::SendPackets(PacketBuffer* const* packets, int32_t count)
{
    // A ring that is shorter than a batch would build one record over another that has not left yet.
    const int32_t most = std::clamp(g_nArqBufferCount, 1, MOST_TOGETHER);
    for (int32_t done = 0; done < count; done += most) {
        const int32_t together = std::min(most, count - done);
        if (m_parts.udpInputMode)
            SendRawTogether(packets + done, together);
        else
            SendTogether(packets + done, together);
    }
    return 1;
}

void FanOut::SendTogether(PacketBuffer* const* packets, int32_t count)
{
    RtpBatch batch;
    for (int32_t i = 0; i < count && m_parts.bRunning; ++i) {
        PacketBuffer* packet = packets[i];
        CountInput(*packet);
        StampAndCount(*packet);
        batch.Add(packet, DecideDrop());
    }
    const StreamTable::View view(m_parts.table);
    BatchMark mark(batch.Count() > 1 ? &m_progress : nullptr);
    if (m_pMulticastStream != nullptr) {
        SendToGroup(view, *m_pMulticastStream, batch, &mark);
    } else if (batch.Count() > 1) {
        BatchSend(view, batch, &mark).Run();
    } else if (batch.Count() == 1) {
        if (batch.IsPassed(0))
            SendToEach(view, packets[0]);
        batch.OnSent(view, 0);
    }
}

void FanOut::SendRawTogether(PacketBuffer* const* packets, int32_t count)
{
    RawBatch batch;
    for (int32_t i = 0; i < count && m_parts.bRunning; ++i) {
        const PacketBuffer& packet = *packets[i];
        CountInput(packet);
        batch.Add(packet.Data(), packet.Length(), NextSeq(), DecideDrop());
    }
    SendRawBatch(m_parts.table, m_pMulticastStream, batch);
}

int FanOut::SendRaw(uint8_t* data, int32_t length)
{
    if (!m_parts.bRunning || !m_parts.udpInputMode) // without that mode the engines build no headers
        return 1;
    RawBatch batch;
    batch.Add(data, length, NextSeq(), DecideDrop());
    SendRawBatch(m_parts.table, m_pMulticastStream, batch);
    return 1;
}

void FanOut::CountInput(const PacketBuffer& packet)
{
    m_parts.rx.m_nRxPackets.Add(1);
    m_parts.rx.m_nRxBytes.Add(static_cast<uint32_t>(packet.Length()));
}

uint16_t FanOut::NextSeq()
{
    return static_cast<uint16_t>(m_usSeqNum.fetch_add(1, std::memory_order_relaxed) + 1);
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
