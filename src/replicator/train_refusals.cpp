#include "replicator/train_refusals.h"

#include <algorithm>
#include <cerrno>

void TrainRefusals::OnRefused(size_t pieceBytes, int error, uint32_t nowMs)
{
    const size_t from = error == EIO ? 0 : pieceBytes; // the device, whatever the size
    m_nSinceMs = nowMs;
    m_nRefusedBytes = std::min(m_nRefusedBytes.Load(), from);
}

void TrainRefusals::OnFull(uint32_t nowMs)
{
    m_nSinceMs = nowMs;
    m_nRefusedBytes = 0;
}

bool TrainRefusals::HasEnded(uint32_t nowMs)
{
    if (nowMs - m_nSinceMs < HOLD_MS)
        return false;
    m_nRefusedBytes = NONE;
    return true;
}
