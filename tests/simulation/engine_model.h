#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "arq/arq_send.h"

namespace simulation {

// What lies in the buffers of the packet pool, which reuses them in a ring.
struct BufferContent {
    uint64_t input = 0; // the how manieth input packet
    uint16_t seq = 0; // the RTP header's; meaningless without one
    int32_t length = 0;
    bool filled = false;
};

// A packet that is to be sent again.
struct ExpectedResend {
    uint16_t seq;
    int32_t buffer;
    uint32_t timestampTicks;
};

// The rules of one stream's retransmission engine, written a second time: which of the numbers that a receiver
// asks for are sent again, and what is counted for the others.
class EngineModel {
public:
    // What becomes of one number.
    enum class Verdict { Resent, NotInBuffer, Reused, HeldOff, Expired, OverBudget };

    struct Request {
        uint16_t retries;
        uint16_t intervalMs;
        uint16_t extraMs;
        std::vector<uint16_t> seqs;
    };

    EngineModel(int32_t ringSize, int32_t bitRate, bool buildsHeaders)
        : m_slots(static_cast<size_t>(ringSize)),
          m_nBitRate(bitRate),
          m_bBuildsHeaders(buildsHeaders)
    {
    }

    void Store(uint16_t seq, int32_t buffer, uint32_t timestampTicks);

    // Calls told(seq, verdict, resend) for each number, in order; `resend` is what must be sent now, if anything.
    template <typename Told>
    void Answer(
        const Request& request, const std::vector<BufferContent>& buffers, uint32_t nowTicks, Told told);

    const ArqSendStats& Stats() const { return m_stats; }
    void ClearCounters();
    // Bytes that one request of that window may have sent again.
    static uint32_t BudgetBytes(uint32_t retries, uint32_t intervalMs, uint32_t extraMs, int32_t bitRate);

private:
    struct Slot {
        int32_t buffer = -1; // -1: empty
        uint16_t seq = 0; // of a built header
        uint32_t timestampTicks = 0;
        uint32_t resendNotBeforeTicks = 0;
        bool isResent = false;
    };

    void TakeWindow(const Request& request);
    void CountRun(uint16_t seq, uint32_t& run);
    Verdict Judge(
        uint16_t seq, const std::vector<BufferContent>& buffers, uint32_t nowTicks, uint32_t& leftBytes);

    static bool IsBefore(uint32_t a, uint32_t b) { return static_cast<int32_t>(a - b) < 0; }

    std::vector<Slot> m_slots;
    int32_t m_nBitRate;
    bool m_bBuildsHeaders;
    uint16_t m_usNextExpected = 0;
    ArqSendStats m_stats { 0, 0, 0, 0, 0, 0, 2, 200 };
};

template <typename Told>
void EngineModel::Answer(
    const Request& request, const std::vector<BufferContent>& buffers, uint32_t nowTicks, Told told)
{
    TakeWindow(request);
    uint32_t leftBytes
        = BudgetBytes(m_stats.arqRetries, m_stats.arqIntervalMs, m_stats.arqExtraMs, m_nBitRate);
    uint32_t run = 0;
    for (size_t i = 0; i < request.seqs.size(); ++i) {
        const uint16_t seq = request.seqs[i];
        CountRun(seq, run);
        const Verdict verdict = Judge(seq, buffers, nowTicks, leftBytes);
        std::optional<ExpectedResend> resend;
        const Slot& slot = m_slots[seq % m_slots.size()];
        if (verdict == Verdict::Resent)
            resend = ExpectedResend { seq, slot.buffer, slot.timestampTicks };
        told(seq, verdict, resend);
        if (verdict != Verdict::OverBudget)
            continue;
        m_stats.overBudget += static_cast<uint32_t>(request.seqs.size() - i);
        for (++i; i < request.seqs.size(); ++i) // none of these is looked at
            told(request.seqs[i], verdict, std::nullopt);
    }
}

} // namespace simulation
