// What a receiver sends to the request port: pings are echoed, requests answered from the ring.
#include <cstdio>

#include "arq/c_arq_send.h"
#include "arq/c_arq_send_cb.h"
#include "arq/datagram_kind.h"
#include "arq/media_header.h"
#include "arq/net_sync_vid.h"
#include "arq/request_list.h"
#include "arq/request_work.h"

namespace {

// Bytes that lie in one piece from the start of part 0; a second part counts when it lies right behind it.
int32_t ContiguousBytes(const PacketBuffer& packet)
{
    const int32_t first = packet.Length();
    const bool adjoins = packet.partCount > 1 && packet.parts[1] == packet.Data() + first;
    return adjoins ? first + packet.partLengths[1] : first;
}

} // namespace

uint32_t CArqSend::ProcessBuffer(PacketBuffer* packet)
{
    const int32_t length = ContiguousBytes(*packet);
    if (length < ARQ_REQUEST_BYTES && packet->partCount != 1)
        return 1;
    switch (ClassifyRequest(packet->Data(), length)) {
    case RequestKind::Ping:
        return EchoPing(packet);
    case RequestKind::BadPing:
        return RejectPing();
    case RequestKind::Other:
        return 1;
    case RequestKind::Request:
        break;
    }
    const RequestList request(packet->Data(), length);
    if (!request.IsChecksumRight())
        return 0;
    TakeOverWindow(request);
    AnswerList(request);
    return 1;
}

uint32_t CArqSend::EchoPing(PacketBuffer* packet)
{
    m_nWork += SEND_WORK;
    (void)m_pCallback->SendData(packet);
    return 1;
}

uint32_t CArqSend::RejectPing()
{
    m_nWork += SEND_WORK; // a line of log is no cheaper
    fprintf(stderr, "CArqSend: ProcessBuffer: BAD ARQ_PING_ID\n");
    return 0;
}

void CArqSend::TakeOverWindow(const RequestList& request)
{
    const ArqWindow window { request.Retries(), request.IntervalMs(), request.ExtraMs() };
    if (window == Window())
        return;
    m_nRetries = window.retries;
    m_nIntervalMs = window.intervalMs;
    m_nExtraMs = window.extraMs;
    m_nMaxAgeTicks = ::MaxAgeTicks(window);
}

void CArqSend::AnswerList(const RequestList& request)
{
    ListPlace place { .budget = { BudgetBytes(Window(), m_nBitRate) } };
    const uint32_t count = request.Count();
    while (place.next < count) {
        const bool isLast = place.next + 1 == count; // alone: nothing to go together with
        const uint32_t end = isLast ? count : AnswerTogether(request, place);
        while (place.next < end) {
            const uint16_t seq = request[place.next];
            CountNumber(seq, place);
            if (AnswerNumber(seq, place.budget) == Verdict::OverBudget) {
                m_nOverBudget.Add(count - place.next + 1); // this number and all that follow are given up
                return;
            }
        }
    }
}

void CArqSend::CountNumber(uint16_t seq, ListPlace& place)
{
    ++place.next;
    ++m_nWork;
    place.run = seq == m_nNextExpected ? place.run + 1 : 0;
    if (place.run > m_nLongestRun)
        m_nLongestRun = place.run;
    m_nNextExpected = static_cast<uint16_t>(seq + 1);
}

// The pointer is read from the slot first, then the header behind it: a slot that was reused meanwhile
// shows another sequence number.
CArqSend::Verdict CArqSend::AnswerNumber(uint16_t seq, ByteBudget& budget)
{
    ArqSlot& slot = m_ring.Slot(seq);
    PacketBuffer* packet = slot.packet.Load();
    if (packet == nullptr) {
        m_nNotInBuffer.Add(1);
        return Verdict::GoOn;
    }
    const RebuildWatch watch(BuiltAt(seq, packet));
    const uint16_t stored = HeaderOf(*packet).seq.Get();
    const uint32_t nowTicks = m_pClock->LocalNow();
    if (stored != seq || IsHeldOff(seq, slot, nowTicks))
        return Verdict::GoOn;
    if (IsExpired(slot, nowTicks)) {
        Expire(slot, packet, watch);
        return Verdict::GoOn;
    }
    if (watch.Built() == nullptr)
        return Resend(seq, slot, packet, budget);
    ResendCopy copy(*watch.Built());
    if (watch.WasRebuilt()) // the slot is another number's by now
        return Verdict::GoOn;
    return Resend(seq, slot, &copy.record, budget);
}

// The built packet of the slot, if that is what the slot holds.
BuiltPacket* CArqSend::BuiltAt(uint16_t seq, const PacketBuffer* packet) const
{
    if (!m_builtPackets)
        return nullptr;
    BuiltPacket& built = m_builtPackets[m_ring.Index(seq)];
    return packet == &built.record ? &built : nullptr;
}

bool CArqSend::IsHeldOff(uint16_t seq, const ArqSlot& slot, uint32_t nowTicks) const
{
    return m_ring.IsRetransmitted(seq) && TicksSince(nowTicks, slot.resendNotBeforeTicks) < 0;
}

bool CArqSend::IsExpired(const ArqSlot& slot, uint32_t nowTicks) const
{
    return TicksSince(nowTicks - m_nMaxAgeTicks, slot.timestampTicks) >= 0;
}

// Empties the slot, but never of a newer packet. That one usually has another record; a slot's built record
// is always the same, so it is put back after a rebuild. Only the listen thread looks, so nobody misses it.
void CArqSend::Expire(ArqSlot& slot, PacketBuffer* packet, const RebuildWatch& watch)
{
    slot.packet.ClearIf(packet);
    if (watch.WasRebuilt())
        slot.packet.Store(packet);
    else
        m_nExpired.Add(1);
}

CArqSend::Verdict CArqSend::Resend(uint16_t seq, ArqSlot& slot, PacketBuffer* packet, ByteBudget& budget)
{
    if (!budget.Spend(packet->TotalLength()))
        return Verdict::OverBudget;
    MarkAsResent(*packet);
    (void)m_pCallback->SendData(packet);
    CountResend(seq, slot, m_pClock->LocalNow() + m_nHoldOffTicks);
    return Verdict::GoOn;
}

// The header is changed in place: a packet that came with its header keeps the retransmission payload type
// from here on.
void CArqSend::MarkAsResent(const PacketBuffer& packet)
{
    WireByte& payloadType = HeaderOf(packet).payloadType;
    payloadType.Set(static_cast<uint8_t>((payloadType.Get() & RTP_MARKER_BIT) | RETRANSMIT_PAYLOAD_TYPE));
}

void CArqSend::CountResend(uint16_t seq, ArqSlot& slot, uint32_t notBeforeTicks)
{
    m_nWork += SEND_WORK;
    slot.resendNotBeforeTicks = notBeforeTicks;
    m_ring.SetRetransmitted(seq);
    m_nRetransmitted.Add(1);
}
