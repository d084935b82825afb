#include "replicator/crowd_gauge.h"

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
