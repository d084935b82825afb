#pragma once

#include <cstdint>
#include <memory>

#include "base/plain_word.h"
#include "pacing/packet_ring.h"
#include "pacing/periodic_timer.h"

struct PacketBuffer;

// Where the pacer's packets go when their time has come.
class CPacerSend {
public:
    CPacerSend() = default;
    CPacerSend(const CPacerSend&) = delete;
    CPacerSend& operator=(const CPacerSend&) = delete;
    virtual ~CPacerSend() = default;

    // Sends one packet. Called on the timer thread and, when the queue overflows, on the submitting thread.
    virtual bool Send(PacketBuffer* packet) = 0;

    // Sends packets of one tick, MOST_TOGETHER at most, in their order. Called on the timer thread.
    virtual void SendTogether(PacketBuffer* const* packets, int32_t count)
    {
        for (int32_t i = 0; i < count; ++i)
            (void)Send(packets[i]);
    }
};

// Releases queued packets at a bit rate, a quota of bytes on every tick of its timer.
//
// Threads: one thread submits, sets the rate, starts and stops; the timer thread calls OnTimer. Quota and
// carry belong to the timer thread, the overflow count to the submitting thread.
class CPacer : public PeriodicTimerCallback {
public:
    static constexpr int32_t QUEUE_CAPACITY = 1024; // packets
    static constexpr uint32_t DEFAULT_BIT_RATE = 10000000;

    // A pacer at 10 Mbit/s that is not running. `send` is not owned and outlives it. Clears ok when memory
    // is short and otherwise leaves it alone.
    CPacer(bool& ok, CPacerSend* send, int32_t periodMs);
    ~CPacer() override;

    // Discards what is queued and paces to `bitsPerSecond` from now on.
    void SetPacingRate(uint32_t bitsPerSecond);

    // Bytes of each packet that are not charged against the quota.
    void SetHeaderBytes(int32_t bytes);

    // Starts the ticks; false when the timer refuses.
    bool Start();

    // Ends the ticks, returns once the last one is over, and discards what is queued.
    void Stop();

    // Queues the packet. When the queue is full the oldest packet is sent at once and makes room.
    bool Submit(PacketBuffer* packet);

    // One tick: releases packets while any quota is left, and sends those together that are there together.
    // An overdraft is paid back by the next ticks, an unused rest is not saved up.
    int OnTimer() override;

    uint32_t Overflows() const { return m_nOverflows; }
    uint32_t QuotaBytes() const { return m_ulQuotaBytes; }
    int32_t Carry() const { return m_nCarry; }
    PacketRing* Queue() { return m_pQueue.get(); }

private:
    int32_t MostTogether();
    int32_t Release(PacketBuffer** out, int32_t most);

    uint32_t m_nOverflows = 0; // submissions that found the queue full
    PlainWord<bool> m_bRunning { false }; // the owner writes, the timer thread reads
    std::unique_ptr<PacketRing> m_pQueue;
    std::unique_ptr<PeriodicTimer> m_pTimer;
    CPacerSend* m_pSend;
    PlainWord<int32_t> m_nHeaderBytes { 0 };
    uint32_t m_ulBitRate = 0; // bit/s
    PlainWord<int32_t> m_nQuota { 0 }; // bytes that may still go out in this tick
    // Quota left by the last tick; negative when its last packet overdrew it
    PlainWord<int32_t> m_nCarry { 0 };
    PlainWord<uint32_t> m_ulQuotaBytes { 0 }; // quota of one tick
    int32_t m_nPeriodMs;
};

// Bytes that one tick may release. The product wraps modulo 2^32 before the division: with ticks of 10 ms
// rates above 429,496,729 bit/s give a smaller quota.
uint32_t TickQuotaBytes(uint32_t bitsPerSecond, int32_t periodMs);

// The quota that a tick starts with: what the last one left over counts only when it is a debt.
int32_t StartQuota(int32_t carry, uint32_t quotaBytes);
