#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <vector>

#include "media.h"
#include "udp.h"

// What one turn of a paced stream gave.
struct TurnResult {
    int64_t sent = 0; // datagrams given to the process under test
    int64_t delivered = 0; // first sendings that the receivers got, all together
    int64_t resent = 0; // retransmissions that they got
    std::vector<double> firstReceiverUs; // from the sender's call to the arrival, one entry a datagram
    std::vector<double> lastReceiverUs;
    std::vector<double> anyReceiverUs;

    // Adds what another piece of the same turn gave.
    void Append(const TurnResult& piece);
};

// A turn is cut into pieces this long, and the two sides take theirs in alternation: what else the machine
// does then meets both.
constexpr double PIECE_S = 0.25;

// Pieces of a turn of `seconds`, at least one.
inline int PiecesOf(double seconds)
{
    return seconds > PIECE_S ? static_cast<int>(seconds / PIECE_S) : 1;
}

// Sends a stream of evenly spaced datagrams and takes in what comes out, on one thread. Receivers are
// emptied in the middle between two datagrams, when the process under test has nothing to do.
class PacedStream {
public:
    // Neither is owned. `perSecond` datagrams go to `inputPort`.
    PacedStream(Receivers& receivers, uint16_t inputPort, int perSecond);

    // Sends for `seconds`, then waits until the last datagram has come, 1 s at most.
    TurnResult Run(double seconds);

    // Sends `count` datagrams at the same pace and forgets what comes.
    void Fill(int64_t count) { (void)RunCount(count); }

    // The sequence number that Run gives next.
    uint16_t NextSeq() const { return m_usSeq; }

private:
    TurnResult RunCount(int64_t count);
    void SendOne();
    void Collect(TurnResult& result);

    Receivers& m_receivers;
    UniqueFd m_sender;
    sockaddr_in m_input;
    int64_t m_nPeriodNs;
    MediaDatagram m_datagram {};
    uint16_t m_usSeq = 1;
    uint32_t m_nTurn = 0;
};

// Sleeps until `wallNs` on the wall clock.
void SleepUntil(int64_t wallNs);

// Waits until a datagram is due: awake, so that one processor never idles and waking a thread does not cost
// what a virtual machine takes for an idle processor; or asleep, after FeedAsleep(true).
void WaitUntilDue(int64_t wallNs);
void FeedAsleep(bool asleep);
