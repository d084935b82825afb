#include "arq/c_arq_send.h"

#include <ctime>
#include <new>

#include "arq/c_arq_send_cb.h"
#include "arq/media_header.h"
#include "arq/net_sync_vid.h"

void DestroyEngine(ArqSend* engine)
{
    if (engine == nullptr || engine->Magic() != ENGINE_MAGIC)
        return;
    delete engine;
}

CArqSend::CArqSend(bool& ok, NetSyncVid* clock, CArqSendCB* callback, uint32_t retries, uint32_t intervalMs,
    uint32_t ringSize, uint32_t bitRate, bool headerBuilding)
    : m_pCallback(callback),
      m_ring(ok, ringSize),
      m_nRetries(retries),
      m_nIntervalMs(intervalMs),
      m_nHoldOffTicks(::HoldOffTicks(intervalMs)),
      m_nMaxAgeTicks(::MaxAgeTicks({ retries, intervalMs, 0 })),
      m_nBitRate(bitRate),
      m_nSsrc(static_cast<uint32_t>(time(nullptr))),
      m_bHeaderBuilding(headerBuilding),
      m_pClock(clock)
{
    if (callback)
        callback->m_pEngine.reset(this);
    if (!headerBuilding)
        return;
    m_builtPackets.reset(new (std::nothrow) BuiltPacket[ringSize]());
    if (!m_builtPackets)
        ok = false;
}

void CArqSend::StoreSent(PacketBuffer* packet)
{
    const MediaHeader& header = HeaderOf(*packet);
    m_ring.Store(header.seq.Get(), packet, header.timestamp.Get());
}

PacketBuffer* CArqSend::BuildAndStore(uint8_t* payload, int32_t length, uint16_t seq)
{
    if (!m_bHeaderBuilding)
        return nullptr;
    BuiltPacket& built = m_builtPackets[m_ring.Index(seq)];
    built.mark.Begin();
    built.FillRecord(payload, length);
    built.FillHeader(seq, m_pClock->LocalNow(), m_nSsrc);
    StoreSent(&built.record);
    built.mark.End();
    return &built.record;
}

void CArqSend::GetStats(ArqSendStats* out)
{
    *out = { m_nRetransmitted, m_nNotInBuffer, m_nLongestRun, m_nOverBudget, m_nExpired, m_nExtraMs,
        m_nRetries, m_nIntervalMs };
}

void CArqSend::ClearStats()
{
    m_nRetransmitted = 0;
    m_nNotInBuffer = 0;
    m_nLongestRun = 0;
    m_nOverBudget = 0;
    m_nExpired = 0;
}

void CArqSend::ClearRing()
{
    if (m_ring.Size() == 0)
        return;
    m_ring.Clear();
    m_nNextExpected = 0;
}

void CArqSend::GetWindow(uint32_t* retries, uint32_t* intervalMs, uint32_t* delayMs) const
{
    *retries = m_nRetries;
    *intervalMs = m_nIntervalMs;
    *delayMs = WindowDelayMs(Window());
}
