#pragma once

#include <cstdint>

// The clock role of the ARQ engines: times are 90 kHz ticks modulo 2^32, offsets signed ticks. A test
// puts a clock with a fixed time here.
class NetSyncVid {
public:
    NetSyncVid() = default;
    NetSyncVid(const NetSyncVid&) = delete;
    NetSyncVid& operator=(const NetSyncVid&) = delete;
    virtual ~NetSyncVid() = default;

    // LocalNow shifted by the offset.
    virtual uint32_t SyncNow() = 0;

    // The time now, by the local clock. Called from several threads at once.
    virtual uint32_t LocalNow() = 0;

    // Local time to synchronised time and back.
    virtual uint32_t ToSync(uint32_t ticks) = 0;
    virtual uint32_t ToLocal(uint32_t ticks) = 0;

    // Learns one offset sample; the offset becomes the largest of the window. Returns old minus new offset.
    virtual int32_t AddSample(int32_t sample) = 0;

    virtual int32_t GetOffset() = 0;

    // Fills the window with 0 and sets the offset to 0.
    virtual void ResetSync() = 0;

    // Whether the window has been filled at least once.
    virtual bool IsWindowFull() = 0;
};
