#include "pacing/c_pacer.h"

#include <cstdio>
#include <new>

#include "base/most_together.h"
#include "input/packet_buffer.h"

CPacer::CPacer(bool& ok, CPacerSend* send, int32_t periodMs) : m_pSend(send), m_nPeriodMs(periodMs)
{
    SetPacingRate(DEFAULT_BIT_RATE);
    bool isQueueUsable = true;
    m_pQueue.reset(new (std::nothrow) PacketRing(isQueueUsable, QUEUE_CAPACITY));
    if (!m_pQueue || !isQueueUsable)
        ok = false;
    if (ok)
        m_pTimer.reset(new (std::nothrow) PeriodicTimer(this));
    if (!m_pTimer)
        ok = false;
}

CPacer::~CPacer()
{
    Stop();
}

void CPacer::SetPacingRate(uint32_t bitsPerSecond)
{
    if (m_pQueue)
        m_pQueue->Discard();
    m_nQuota = 0;
    m_nCarry = 0;
    m_ulBitRate = bitsPerSecond;
    m_ulQuotaBytes = TickQuotaBytes(bitsPerSecond, m_nPeriodMs);
    printf("CPacer::SetPacingRate m_ulQuotaBytes %d\n", static_cast<int32_t>(m_ulQuotaBytes.Load()));
}

void CPacer::SetHeaderBytes(int32_t bytes)
{
    m_nHeaderBytes = bytes;
    if (m_pQueue)
        m_pQueue->SetHeaderBytes(bytes);
}

bool CPacer::Start()
{
    if (!m_pTimer)
        return true;
    m_bRunning = true;
    if (m_pTimer->Start(m_nPeriodMs))
        return true;
    Stop();
    return false;
}

void CPacer::Stop()
{
    m_bRunning = false;
    if (m_pTimer)
        m_pTimer->Stop();
    if (m_pQueue)
        m_pQueue->Discard();
}

bool CPacer::Submit(PacketBuffer* packet)
{
    if (m_pQueue->Push(packet))
        return true;
    PacketBuffer* oldest = m_pQueue->Pop();
    if (oldest != nullptr) // the timer may have emptied the queue meanwhile
        (void)m_pSend->Send(oldest);
    ++m_nOverflows;
    return m_pQueue->Push(packet);
}

int CPacer::OnTimer()
{
    if (!m_bRunning)
        return 0;
    m_nQuota = StartQuota(m_nCarry, m_ulQuotaBytes);
    PacketBuffer* released[MOST_TOGETHER];
    while (const int32_t count = Release(released, MostTogether()))
        m_pSend->SendTogether(released, count);
    m_nCarry = m_nQuota.Load();
    return 0;
}

// When the queue overflows, the submitting thread sends what stands behind the packets in hand here. So that
// no more than neighbours change places, a queue that is near to that is emptied one by one.
int32_t CPacer::MostTogether()
{
    return m_pQueue->Count() > QUEUE_CAPACITY / 2 ? 1 : MOST_TOGETHER;
}

// Takes what the quota allows; how many those are. Peek and pop are two steps: an overflow on the submitting
// thread may take the head in between. What is sent is what the pop gave, so none is skipped or sent twice;
// what is charged is the head that was seen.
int32_t CPacer::Release(PacketBuffer** out, int32_t most)
{
    int32_t count = 0;
    while (count < most && m_nQuota > 0) {
        const PacketBuffer* head = m_pQueue->Peek();
        if (head == nullptr)
            break;
        const int32_t charge = head->TotalLength() - m_nHeaderBytes;
        PacketBuffer* packet = m_pQueue->Pop();
        if (packet != nullptr)
            out[count++] = packet;
        m_nQuota = m_nQuota - charge;
    }
    return count;
}

uint32_t TickQuotaBytes(uint32_t bitsPerSecond, int32_t periodMs)
{
    constexpr uint32_t MS_TIMES_BITS_PER_BYTE = 8000;
    return bitsPerSecond * static_cast<uint32_t>(periodMs) / MS_TIMES_BITS_PER_BYTE;
}

int32_t StartQuota(int32_t carry, uint32_t quotaBytes)
{
    const auto whole = static_cast<int32_t>(quotaBytes);
    return carry > 0 ? whole : carry + whole;
}
