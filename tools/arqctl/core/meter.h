#pragma once

#include <cstdint>

#include "arqctl/core/statistics.h"

namespace arqctl {

// Counts that only grow while this program watches: they go on over resets, restarts and wraps of the proxy's own.
struct Totals {
    uint64_t received = 0; // input packets
    uint64_t lost = 0; // numbers missing from the input
    uint64_t sent = 0; // datagrams to receivers, everything included
    // The proxy says neither what it sent again nor what it withheld on purpose. Of each interval, what was sent less
    // input packets x receivers goes to one of these two: more is resends and answered pings, less is withheld.
    uint64_t sentBeyond = 0;
    uint64_t withheld = 0;
    uint64_t resets = 0; // counts of the proxy that went back while it ran on
    uint64_t restarts = 0; // of the proxy, seen by another process or by a gap with all counts back

    bool operator==(const Totals&) const = default;
};

// Of the last interval between two answers; all 0 until there are two.
struct Rates {
    double inputPackets = 0; // a second
    double lost = 0;
    double sent = 0;
    double sentBeyond = 0;
    double withheld = 0;
};

// What is known of a proxy at one time.
struct Reading {
    bool isUp = false; // the last question was answered
    bool hasBeenUp = false;
    Statistics statistics; // of the last answer
    Totals totals;
    Rates rates;
    int64_t atUs = 0; // when the last answer came
    int64_t inputChangedUs = 0; // when RECV_PACKETS last grew, or the first answer came
    // No input packet for INPUT_GONE_US while the proxy answers.
    bool isInputGone = false;
};

constexpr int64_t INPUT_GONE_US = 3'000'000;

// Makes rates and totals of a proxy's answers, one after another.
//
// `fanOut` says to how many receivers an input packet is sent: the number in the answer, or 1 for a proxy that sends to a
// multicast group (its receivers only ask), or negative when that is not known and then the first is taken.
// Times are microseconds of the monotonic clock. Threads: one thread's own.
class Meter {
public:
    // `peerPid`: of the proxy, 0 when not known.
    void Take(const Statistics& statistics, int64_t nowUs, int peerPid, int fanOut = -1);
    // A question that was not answered.
    void Miss(int64_t nowUs);

    const Reading& Now() const { return m_reading; }

private:
    void Compare(const Statistics& statistics, int64_t nowUs, int peerPid, int fanOut);

    Reading m_reading;
    int m_nPeerPid = 0;
};

} // namespace arqctl
