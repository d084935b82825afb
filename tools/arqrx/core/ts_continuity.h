#pragma once

#include <cstdint>
#include <memory>
#include <span>

namespace arqrx {

// Counts where an MPEG transport stream (ISO/IEC 13818-1, 2.4.3) has a hole: its packets are numbered from 0 to 15 for
// each PID. What is fed is what was played out, one RTP payload after the other. Threads: one at a time.
class TsContinuity {
public:
    TsContinuity();
    ~TsContinuity();
    TsContinuity(const TsContinuity&) = delete;
    TsContinuity& operator=(const TsContinuity&) = delete;

    // A payload of whole transport packets; any other is counted and not looked into.
    void Add(std::span<const uint8_t> payload);
    // What follows does not go on from what came before: another programme, or play-out began afresh.
    void Forget();

    uint64_t Errors() const
    {
        return m_nErrors;
    } // transport packets that do not follow the last one of their PID
    uint64_t Packets() const { return m_nPackets; } // transport packets seen, null packets included
    uint64_t Doubles() const { return m_nDoubles; } // sent twice on purpose, which is allowed once in a row
    uint64_t Foreign() const { return m_nForeign; } // payloads that are no transport stream

private:
    struct Pid;
    void AddPacket(const uint8_t* packet);
    void Follow(Pid& pid, const uint8_t* packet, uint8_t counter, bool hasPayload);

    std::unique_ptr<Pid[]> m_pids; // by PID
    uint64_t m_nErrors = 0;
    uint64_t m_nPackets = 0;
    uint64_t m_nDoubles = 0;
    uint64_t m_nForeign = 0;
};

} // namespace arqrx
