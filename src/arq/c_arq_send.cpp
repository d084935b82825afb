#include "arq/c_arq_send.h"

#include <ctime>
#include <new>

#include "arq/c_arq_send_cb.h"
#include "arq/media_header.h"
#include "arq/net_sync_vid.h"

namespace {

void FillRecord(PacketBuffer& record, MediaHeader& header, uint8_t* payload, int32_t length)
{
    record.partCount = 2;
    record.parts[0] = reinterpret_cast<uint8_t*>(&header);
    record.partLengths[0] = MEDIA_HEADER_BYTES;
    record.parts[1] = payload;
    record.partLengths[1] = length;
}

void FillHeader(MediaHeader& header, uint16_t seq, uint32_t timestampTicks, uint32_t ssrc)
{
    header.flags.Set(RTP_VERSION_FLAGS);
    header.payloadType.Set(MEDIA_PAYLOAD_TYPE);
    header.seq.Set(seq);
    header.timestamp.Set(timestampTicks);
    header.ssrc.Set(ssrc);
}

} // namespace

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
      m_nHoldOff(HoldOffTicks(intervalMs)),
      m_nMaxAge(MaxAgeTicks({ retries, intervalMs, 0 })),
      m_nBitRate(bitRate),
      m_nSsrc(static_cast<uint32_t>(time(nullptr))),
      m_bHeaderBuilding(headerBuilding),
      m_pClock(clock)
{
    if (callback)
        callback->m_pEngine.reset(this);
    if (!headerBuilding)
        return;
    m_builtRecords.reset(new (std::nothrow) PacketBuffer[ringSize]());
    m_builtHeaders.reset(new (std::nothrow) MediaHeader[ringSize]());
    if (!m_builtRecords || !m_builtHeaders)
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
    const uint32_t index = m_ring.Index(seq);
    MediaHeader& header = m_builtHeaders[index];
    PacketBuffer* record = &m_builtRecords[index];
    FillRecord(*record, header, payload, length);
    FillHeader(header, seq, m_pClock->LocalNow(), m_nSsrc);
    StoreSent(record);
    return record;
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
