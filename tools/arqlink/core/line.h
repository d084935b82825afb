#pragma once

#include "arqlink/core/packet_store.h"
#include "arqlink/core/random.h"
#include "arqlink/core/sequence_drops.h"
#include "arqlink/core/settings.h"

#include <cstdint>
#include <limits>
#include <span>
#include <vector>

namespace arqlink {

constexpr int64_t NEVER = std::numeric_limits<int64_t>::max();

// What becomes of a packet. All but the first are lost.
enum class Outcome : uint8_t {
    Passed,
    Blackout, // the line is off
    Sequence, // its sequence number was on the list
    Burst, // Gilbert and Elliott's draw
    Random, // the draw for this packet
    Queue, // the rate's queue was full
    Memory // too much is under way
};

// "passed", "blackout", "sequence", "burst", "random", "queue", "memory".
const char* OutcomeName(Outcome outcome);

struct Fate {
    uint64_t number = 0; // the line's count of packets, from 0
    Outcome outcome = Outcome::Passed;
    bool bCorrupted = false;
    bool bDuplicated = false;
    int64_t delayUs
        = 0; // what the settings and the draws hold it up: not the queue, nor the wait for its place
    int64_t copyDelayUs = 0; // the same of the second one, if there is one
};

// A packet that left the line.
struct Delivery {
    std::vector<uint8_t> bytes;
    uint64_t cookie = 0; // as it was given to Push
    uint64_t number = 0; // as in its fate
    bool bCopy = false; // the second of two
    int64_t dueUs = 0; // when it was to leave; the caller may be late
};

// came + duplicated = delivered + lost + under way, always.
struct Counts {
    uint64_t came = 0;
    uint64_t cameBytes = 0;
    uint64_t delivered = 0; // copies too
    uint64_t deliveredBytes = 0;
    uint64_t blackout = 0;
    uint64_t sequence = 0;
    uint64_t burst = 0;
    uint64_t random = 0;
    uint64_t queue = 0;
    uint64_t memory = 0; // packets, and copies for which there was no room
    uint64_t duplicated = 0;
    uint64_t corrupted = 0;
    uint64_t reordered = 0; // delivered after one that came later; no copies

    uint64_t Lost() const { return blackout + sequence + burst + random + queue + memory; }
};

// One direction of a bad line, without sockets, threads or clock: datagrams and the time go in, datagrams come out
// when they are due. Times are microseconds of any clock that does not step back. What is drawn for packet n depends
// on the seed and n alone, never on when it came: the same seed, settings and packets have the same fates. Only the
// rate's queue and the limit of the memory look at the time.
// Threads: one object is one thread's own.
class Line {
public:
    // The store outlives the line.
    Line(uint64_t seed, const Settings& settings, PacketStore& store);
    ~Line();
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    // From the next packet on. What is under way leaves when it was to leave; order is kept across the change.
    void Configure(const Settings& settings);

    // A datagram enters. The cookie comes back with it.
    Fate Push(std::span<const uint8_t> bytes, int64_t nowUs, uint64_t cookie = 0);

    // Takes the next one that is due by `nowUs` from the line, in the order of their times. False: none is. The memory
    // that `delivery` held before is used again, so a caller that hands in the same object each time is the fastest.
    bool PopDue(int64_t nowUs, Delivery& delivery);

    // When PopDue has the next one; NEVER if nothing is under way.
    int64_t NextWakeUs() const { return m_waiting.empty() ? NEVER : m_waiting.front().delivery.dueUs; }

    const Counts& Figures() const { return m_counts; }
    size_t UnderWay() const { return m_waiting.size(); }
    const Settings& Current() const { return m_settings; }

private:
    struct Waiting {
        Delivery delivery;
        uint64_t serial = 0; // of two that are due together the first to come leaves first
    };
    static bool LeavesLater(const Waiting& a, const Waiting& b);

    Outcome Judge(std::span<const uint8_t> bytes, uint64_t number);
    bool BurstTakes(uint64_t number);
    bool Transmit(size_t sizeBytes, int64_t nowUs, int64_t& sentUs);
    bool Send(std::span<const uint8_t> bytes, int64_t leaveUs, const Fate& fate, uint64_t cookie, bool bCopy);
    int64_t InOrder(int64_t dueUs, uint64_t number);
    void Count(const Fate& fate);
    void Corrupt(std::vector<uint8_t>& bytes, uint64_t number) const;

    Settings m_settings;
    PacketStore& m_store;
    const Draws m_loss, m_burstMove, m_burstLoss, m_jitter, m_copyJitter, m_stepAside, m_duplicate, m_corrupt;
    SequenceDrops m_sequences;
    bool m_bBad = false; // the bursts' state
    uint64_t m_ulPackets = 0;
    uint64_t m_ulSerial = 0;
    uint64_t m_ulBehind = 0; // the number after the highest that has left
    int64_t m_nFreeAtNs = 0; // when a limited line has sent what waits for it
    int64_t m_nLastDueUs = 0; // of the last one that keeps the order
    std::vector<Waiting> m_waiting; // a heap, the next to leave in front
    Counts m_counts;
};

} // namespace arqlink
