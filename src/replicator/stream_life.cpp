#include "replicator/stream_life.h"

#include "base/byte_order.h"

void StreamLife::MakeStatic()
{
    m_bStatic = true;
    m_bMediaStarted = true;
}

StreamLife::PingVerdict StreamLife::OnPing(uint16_t portNet, uint32_t nowMs)
{
    ++m_nPingCount;
    m_nLastPingMs = nowMs;
    if (m_bStatic)
        return { false, false };
    const bool moved = m_bMediaStarted && portNet != m_usMediaPortNet;
    if (moved)
        m_bMediaStarted = false;
    return { moved, !m_bMediaStarted };
}

void StreamLife::OnStarted(uint16_t portNet)
{
    m_bMediaStarted = true;
    m_usMediaPortNet = portNet;
}

// A stream whose media could not be started yet does not resume: there is no port to send to. It ends like
// any other.
StreamLife::VisitVerdict StreamLife::OnVisit(bool isAlive, uint32_t nowMs)
{
    if (m_bStatic)
        return VisitVerdict::Stays;
    if (m_nPingCount != 0) {
        m_nPingCount = 0;
        return !isAlive && m_bMediaStarted ? VisitVerdict::Resumes : VisitVerdict::Stays;
    }
    const bool isSilent = TicksSince(nowMs, m_nLastPingMs) >= static_cast<int32_t>(SILENCE_MS);
    return isSilent ? VisitVerdict::Ends : VisitVerdict::Stays;
}

uint32_t SleepBeforeVisit(uint32_t* dueMs, uint32_t nowMs)
{
    *dueMs += StreamLife::VISIT_MS;
    const int32_t leftMs = TicksSince(*dueMs, nowMs);
    if (leftMs >= 0)
        return static_cast<uint32_t>(leftMs);
    if (leftMs < -static_cast<int32_t>(StreamLife::VISIT_MS))
        *dueMs = nowMs;
    return 0;
}
