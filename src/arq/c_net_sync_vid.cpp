#include "arq/c_net_sync_vid.h"

#include <new>

#include "arq/media_clock.h"

CNetSyncVid::CNetSyncVid(int32_t& status, uint32_t windowSize) : m_nWindowSize(windowSize)
{
    bool ok = true;
    m_pFilter.reset(
        new (std::nothrow) SlidingExtremum(ok, static_cast<int32_t>(windowSize), SlidingExtremum::MAXIMUM));
    if (m_pFilter && !ok)
        m_pFilter.reset();
    if (!m_pFilter || status != 0)
        status = STATUS_FAILED;
}

uint32_t CNetSyncVid::SyncNow()
{
    return ToSync(LocalNow());
}

uint32_t CNetSyncVid::LocalNow()
{
    return MediaClock();
}

uint32_t CNetSyncVid::ToSync(uint32_t ticks)
{
    return ticks + static_cast<uint32_t>(m_nOffsetTicks);
}

uint32_t CNetSyncVid::ToLocal(uint32_t ticks)
{
    return ticks - static_cast<uint32_t>(m_nOffsetTicks);
}

int32_t CNetSyncVid::AddSample(int32_t sample)
{
    if (!m_pFilter)
        return 0;
    const int32_t old = m_nOffsetTicks;
    m_pFilter->Add(sample);
    m_pFilter->Recompute();
    m_nOffsetTicks = m_pFilter->Maximum();
    // The smallest i32 may be the new offset: the difference wraps like the tick counts it belongs to.
    return static_cast<int32_t>(static_cast<uint32_t>(old) - static_cast<uint32_t>(m_nOffsetTicks));
}

// The window is refilled with 0, not with the smallest value as at construction: after a reset the offset
// stays at 0 or above until a whole window of samples has come.
void CNetSyncVid::ResetSync()
{
    if (m_pFilter)
        m_pFilter->Reset(0);
    m_nOffsetTicks = 0;
}

bool CNetSyncVid::IsWindowFull()
{
    return m_pFilter && m_pFilter->IsFull();
}
