#include "replicator/crowd_gauge.h"

bool CrowdGauge::OnArrivals(uint32_t count)
{
    m_nWithoutBreak += count;
    if (m_nWithoutBreak < ARRIVALS_A_LOOK)
        return false;
    m_nWithoutBreak = 0;
    return true;
}

void CrowdGauge::OnLook(uint32_t waitingBytes, uint32_t nowMs)
{
    if (waitingBytes < CROWDED_BYTES)
        return;
    m_bCrowded = true;
    m_nCrowdedMs = nowMs;
}

bool CrowdGauge::IsCrowded(uint32_t nowMs)
{
    if (m_bCrowded && nowMs - m_nCrowdedMs >= HOLD_MS)
        m_bCrowded = false; // cleared: the time wraps
    return m_bCrowded;
}
