#pragma once

#include <cstdint>

#include "arq/request_work.h"

// How much of the listen thread one receiver may have while datagrams of others wait. What its requests cost
// is counted in sequence numbers looked up; what is beyond the quota drains away with time.
//
// A receiver has no use for more: 1024 resends within the hold-off of 100 ms are 109 Mbit/s of packets with
// 1316 bytes of payload, twice the gross bit rate of media (50 Mbit/s by default). Who has something left may
// ask for as much as a request can hold; the longest one, 65535 numbers, uses up the quota of 194 ms.
//
// Threads: the listen thread. Times are milliseconds of a steady clock.
class RequestQuota {
public:
    static constexpr uint32_t PERIOD_MS = 100; // the hold-off
    static constexpr uint32_t MOST_RESENDS = 1024; // in one period
    static constexpr uint32_t WORK_PER_MS = (MOST_RESENDS * (1 + SEND_WORK) + PERIOD_MS - 1) / PERIOD_MS;
    static constexpr uint32_t MOST_WORK = PERIOD_MS * WORK_PER_MS;

    // Whether the quota is used up at that time.
    bool IsSpent(uint32_t nowMs);

    // The receiver has had so much. Only its last request is carried beyond the quota: what it was served
    // before, while nobody waited, took nothing from anybody and is no debt for hours.
    void Charge(uint32_t work);

private:
    uint32_t m_nSpent = 0;
    uint32_t m_nThenMs = 0; // when m_nSpent was right
};
