// What one request may have sent again leaves in one go, as far as it can without waiting. A stretch of the
// list is looked at ahead, which changes nothing but the payload type of packets that are to leave. Up to the
// first one that has not left the numbers then count as if they had been answered one by one. From there on
// they really are, and are judged again for it: a plain send may wait.
#include <algorithm>

#include "arq/c_arq_send.h"
#include "arq/c_arq_send_cb.h"
#include "arq/media_header.h"
#include "arq/net_sync_vid.h"
#include "arq/request_list.h"
#include "arq/request_work.h"
#include "arq/resend_train.h"

uint32_t CArqSend::AnswerTogether(const RequestList& request, ListPlace& place)
{
    ResendTrain train;
    const uint32_t end = LookAhead(request, place, train);
    uint32_t left = 0;
    if (train.Count() > 1) {
        const auto count = static_cast<int32_t>(train.Count());
        left = static_cast<uint32_t>(m_pCallback->SendAtOnce(train.Packets(), count));
    }
    CountAsAnswered(request, place, train, left);
    return end;
}

// The number that ends a train belongs to the stretch: it is answered by itself.
uint32_t CArqSend::LookAhead(const RequestList& request, const ListPlace& place, ResendTrain& train)
{
    const uint32_t end = std::min(request.Count(), place.next + ResendTrain::MOST_NUMBERS);
    const uint32_t nowTicks = m_pClock->LocalNow();
    ByteBudget budget = place.budget;
    for (uint32_t i = place.next; i < end; ++i) {
        if (!LookAtNumber(request[i], nowTicks, budget, train))
            return i + 1;
    }
    return end;
}

// Looks in the same order as AnswerNumber. False where the train ends, at a number that is left to that one:
// it empties the slot of what is too old, ends the list at what is beyond the budget, and sees, once the
// train has left, whether a number that comes again is held off.
bool CArqSend::LookAtNumber(uint16_t seq, uint32_t nowTicks, ByteBudget& budget, ResendTrain& train)
{
    const ArqSlot& slot = m_ring.Slot(seq);
    PacketBuffer* packet = slot.packet.Load();
    if (packet == nullptr) {
        train.Pass(ResendTrain::Finding::NotInBuffer);
        return true;
    }
    if (train.MayHave(m_ring.Index(seq)))
        return false;
    const RebuildWatch watch(BuiltAt(seq, packet));
    if (HeaderOf(*packet).seq.Get() != seq || IsHeldOff(seq, slot, nowTicks)) {
        train.Pass(ResendTrain::Finding::Skipped);
        return true;
    }
    if (IsExpired(slot, nowTicks))
        return false;
    if (watch.Built() != nullptr)
        packet = train.Copy(*watch.Built());
    if (watch.WasRebuilt()) {
        train.Pass(ResendTrain::Finding::Skipped);
        return true;
    }
    if (!budget.Spend(packet->TotalLength()))
        return false;
    MarkAsResent(*packet);
    train.Take(packet, m_ring.Index(seq));
    return true;
}

// All numbers before the packet that comes after the `left` that have left.
void CArqSend::CountAsAnswered(
    const RequestList& request, ListPlace& place, const ResendTrain& train, uint32_t left)
{
    const uint32_t notBeforeTicks = m_pClock->LocalNow() + m_nHoldOffTicks;
    uint32_t resent = 0;
    for (uint32_t i = 0; i < train.Numbers(); ++i) {
        const ResendTrain::Finding finding = train.At(i);
        if (finding == ResendTrain::Finding::Resend && resent == left)
            return;
        const uint16_t seq = request[place.next];
        CountNumber(seq, place);
        if (finding == ResendTrain::Finding::NotInBuffer)
            m_nNotInBuffer.Add(1);
        if (finding != ResendTrain::Finding::Resend)
            continue;
        (void)place.budget.Spend(train.Packets()[resent++]->TotalLength());
        CountResend(seq, m_ring.Slot(seq), notBeforeTicks);
    }
}
