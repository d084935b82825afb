#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

namespace simulation {

// The pacer's rules, written a second time: which packets a tick releases.
class PacerModel {
public:
    static constexpr size_t CAPACITY = 1024; // packets

    PacerModel(int64_t bitRate, int32_t headerBytes)
        : m_nQuotaBytes(
            static_cast<int64_t>(static_cast<uint64_t>(bitRate) * 10 % (uint64_t { 1 } << 32) / 8000)),
          m_nHeaderBytes(headerBytes)
    {
    }

    // A packet is handed in. True when the oldest one must be sent at once to make room.
    bool Submit(uint64_t input, int32_t length)
    {
        m_queue.push_back({ input, length });
        return m_queue.size() > CAPACITY;
    }

    // The packet that is to leave next; false when there is none.
    bool TakeNext(uint64_t* input)
    {
        if (m_queue.empty())
            return false;
        *input = m_queue.front().input;
        m_queue.pop_front();
        return true;
    }

    // How many packets this tick releases: as long as any quota is left. A debt is carried over, a rest is not.
    int64_t Tick()
    {
        int64_t quota = m_nDebtBytes + m_nQuotaBytes;
        int64_t released = 0;
        for (const Queued& packet : m_queue) {
            if (quota <= 0)
                break;
            quota -= packet.length - m_nHeaderBytes;
            ++released;
        }
        m_nDebtBytes = quota < 0 ? quota : 0;
        return released;
    }

    size_t Count() const { return m_queue.size(); }

private:
    struct Queued {
        uint64_t input;
        int32_t length;
    };

    int64_t m_nQuotaBytes; // of one tick
    int32_t m_nHeaderBytes; // of each packet that are not charged
    int64_t m_nDebtBytes = 0; // 0 or below
    std::deque<Queued> m_queue;
};

} // namespace simulation
