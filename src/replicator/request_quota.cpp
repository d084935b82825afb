#include "replicator/request_quota.h"

#include <algorithm>

bool RequestQuota::IsSpent(uint32_t nowMs)
{
    const uint64_t elapsedMs = nowMs - m_nThenMs;
    const uint64_t drained = elapsedMs * WORK_PER_MS;
    m_nSpent -= static_cast<uint32_t>(std::min<uint64_t>(drained, m_nSpent));
    m_nThenMs = nowMs;
    return m_nSpent >= MOST_WORK;
}

void RequestQuota::Charge(uint32_t work)
{
    m_nSpent = std::min(m_nSpent, MOST_WORK) + work;
}
