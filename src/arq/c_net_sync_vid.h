#pragma once

#include <cstdint>
#include <memory>

#include "arq/net_sync_vid.h"
#include "arq/sliding_extremum.h"

// The media clock: wall-clock time in 90 kHz ticks, with an offset learnt from a sliding window.
//
// Threads: LocalNow keeps no state and is called from the sending threads and the listen thread at once.
// The offset operations take no lock; one caller at a time.
class CNetSyncVid : public NetSyncVid {
public:
    static constexpr int32_t STATUS_FAILED = static_cast<int32_t>(0x80000001);

    // A clock with offset 0 and a window of `windowSize` samples, at least 1. Sets status to STATUS_FAILED
    // when memory is short or when status was not 0 to begin with; leaves it alone otherwise.
    CNetSyncVid(int32_t& status, uint32_t windowSize);

    uint32_t SyncNow() override;
    uint32_t LocalNow() override;
    uint32_t ToSync(uint32_t ticks) override;
    uint32_t ToLocal(uint32_t ticks) override;
    int32_t AddSample(int32_t sample) override;
    int32_t GetOffset() override { return m_nOffsetTicks; }
    void ResetSync() override;
    bool IsWindowFull() override;

    uint32_t WindowSize() const { return m_nWindowSize; }

private:
    uint32_t m_nWindowSize;
    std::unique_ptr<SlidingExtremum> m_pFilter; // null after a failed construction
    int32_t m_nOffsetTicks = 0;
};
