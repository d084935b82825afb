#pragma once

#include <cstdint>

#include "arqctl/core/shortfall.h"
#include "arqctl/core/statistics.h"

namespace arqctl {

// Counts that only grow while this program watches: they begin with the proxy's own at the first answer (the estimates
// with 0) and go on over its resets, restarts and wraps. What it counted between the last answer and a reset is lost.
struct Totals {
    uint64_t received = 0; // input packets
    uint64_t lost = 0; // numbers missing from the input
    uint64_t sent = 0; // datagrams to receivers, everything included
    // The proxy says neither what it sent again nor what it withheld on purpose. Of each interval, what was sent less
    // input packets x receivers goes to one of these two: more is resends and answered pings, less is withheld. Both in
    // one interval cancel each other. Nothing is taken of an interval in which only one of the counts was reset, and a
    // little that is missing is withheld once two more answers say so (shortfall.h).
    uint64_t sentBeyond = 0;
    uint64_t withheld = 0;
    uint64_t resets = 0; // answers in which counts of the proxy went back while it ran on
    uint64_t restarts = 0; // of the proxy, seen by another process or by a gap with all counts back

    bool operator==(const Totals&) const = default;
};

// Of the last interval between two answers of one process; all 0 until there are two, and after a question that was not
// answered.
struct Rates {
    double inputPackets = 0; // a second
    double lost = 0;
    double sent = 0;
    double sentBeyond = 0;
    double withheld = 0;

    bool operator==(const Rates&) const = default;
};

// What is known of a proxy at one time.
struct Reading {
    bool isUp = false; // the last question was answered
    bool hasBeenUp = false;
    bool hasHadInput = false; // RECV_PACKETS has grown while this program watched
    Statistics statistics; // of the last answer
    Totals totals;
    Rates rates;
    int64_t atUs = 0; // when the last answer came
    int64_t inputChangedUs = 0; // when RECV_PACKETS last grew, or the first answer of this process came
    // No input packet for INPUT_GONE_US while the proxy answers: one that never had input included.
    bool isInputGone = false;
};

constexpr int64_t INPUT_GONE_US = 3'000'000;

// Makes rates and totals of a proxy's answers, one after another.
//
// `fanOut` says to how many receivers an input packet is sent: 1 for a proxy that sends to a multicast group (its
// receivers only ask), or negative when that is not known and then it is the number of receivers in the answer. While
// receivers come and go, those of both answers are the least that were expected and those of either answer the most.
// Times are microseconds of the monotonic clock. Threads: one thread's own.
class Meter {
public:
    // `peerPid`: of the proxy, 0 when not known; behind a tunnel it is not known.
    void Take(const Statistics& statistics, int64_t nowUs, int peerPid, int fanOut = -1);
    // A question that was not answered.
    void Miss(int64_t nowUs);

    const Reading& Now() const { return m_reading; }

private:
    void Begin(const Statistics& statistics, int64_t nowUs);
    void Restart(const Statistics& statistics, int64_t nowUs);
    void Compare(const Statistics& statistics, int64_t nowUs, int fanOut);
    void Estimate(const Statistics& statistics, const Totals& growth, int fanOut);
    void LookAtInput(uint64_t received, int64_t nowUs);
    bool IsAnotherProcess(const Statistics& statistics, int peerPid) const;

    Reading m_reading;
    Shortfall m_shortfall;
    int m_nPeerPid = 0;
    int m_nFanOut = -1; // with the last answer
};

} // namespace arqctl
