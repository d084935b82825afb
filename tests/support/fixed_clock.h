#pragma once

#include <cstdint>

#include "arq/net_sync_vid.h"
#include "base/plain_word.h"

namespace test_support {

// A clock that stands still until a test moves it. Its offset is always 0.
class FixedClock : public NetSyncVid {
public:
    explicit FixedClock(uint32_t ticks = 0) : m_ulNow(ticks) {}

    void Set(uint32_t ticks) { m_ulNow = ticks; }
    void Advance(uint32_t ticks) { m_ulNow.Add(ticks); }

    uint32_t SyncNow() override { return m_ulNow; }
    uint32_t LocalNow() override { return m_ulNow; }
    uint32_t ToSync(uint32_t ticks) override { return ticks; }
    uint32_t ToLocal(uint32_t ticks) override { return ticks; }
    int32_t AddSample(int32_t /*sample*/) override { return 0; }
    int32_t GetOffset() override { return 0; }
    void ResetSync() override {}
    bool IsWindowFull() override { return false; }

private:
    PlainWord<uint32_t> m_ulNow; // 90 kHz ticks
};

} // namespace test_support
