#pragma once

#include <cstdint>

// The rules of a receiver's stream: when its media start, move, resume, and when it has been silent for too
// long. It only decides; whoever calls it carries the verdict out. Times are milliseconds of HeardClock.
//
// Threads: none of its own; used under the replicator lock.
class StreamLife {
public:
    // Silence that ends a stream, and how often each stream is looked at. A receiver that pings at least
    // every 4.9 s stays; one that falls silent is gone 5 to 10 s later.
    static constexpr uint32_t SILENCE_MS = 5000;
    static constexpr int32_t PLACES = 50; // in a round of looks; one place follows the other
    static constexpr uint32_t VISIT_MS = 100; // from one place to the next
    static_assert(PLACES * VISIT_MS == SILENCE_MS, "a look once in each time of silence");

    // What a ping asks for. A receiver that pings from a new port has moved, and its media start there.
    struct PingVerdict {
        bool moved;
        bool start;
    };

    // What a look finds.
    enum class VisitVerdict { Stays, Resumes, Ends };

    // Configured by address, or on loopback: needs no pings and is never looked at.
    void MakeStatic();

    // A ping from `portNet` (network order). Counts it. On `start` the caller tries to start the media and
    // tells so by OnStarted; otherwise the next ping asks again.
    PingVerdict OnPing(uint16_t portNet, uint32_t nowMs);
    void OnStarted(uint16_t portNet);

    // The look once in a round. `isAlive` tells whether datagrams are sent to the receiver.
    VisitVerdict OnVisit(bool isAlive, uint32_t nowMs);

    // The stream's place in the round: given when it joins and kept, whatever joins or leaves meanwhile.
    // A position in the table would not do: a removal moves another stream there, which would be looked at
    // too early or not at all.
    void TakePlace(int32_t place) { m_nPlace = place; }
    int32_t Place() const { return m_nPlace; }

    bool IsStatic() const { return m_bStatic; }
    bool HasStarted() const { return m_bMediaStarted; }
    uint16_t MediaPortNet() const { return m_usMediaPortNet; }
    uint32_t PingCount() const { return m_nPingCount; }

private:
    bool m_bStatic = false;
    bool m_bMediaStarted = false; // the receiver's port is known, or needs not be
    uint16_t m_usMediaPortNet = 0; // the receiver's port as its ping came; 0 until then
    uint32_t m_nPingCount = 0; // pings since the last look
    uint32_t m_nLastPingMs = 0;
    int32_t m_nPlace = 0;
};

// How long to sleep before the next look, which was due at `*dueMs`; moves that on by one period. Looks keep
// their rhythm however long each took; after a stall of more than a period they start a new one.
uint32_t SleepBeforeVisit(uint32_t* dueMs, uint32_t nowMs);
