#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "base/unique_fd.h"
#include "media.h"

// An even RTP stream with timestamps of the wall clock, as the proxy gives them. It sleeps between two turns of 200 us,
// so that it leaves the machine to whom it measures.
class StampedFeed {
public:
    enum class Payload { SentTime, TransportStream };

    StampedFeed(const sockaddr_in& destination, double bitsPerSecond, Payload payload);
    StampedFeed(const StampedFeed&) = delete; // its messages point into it
    StampedFeed& operator=(const StampedFeed&) = delete;

    // Sends for `seconds`; `afterTurn` is called whenever nothing is due. Returns the number of datagrams.
    int64_t Run(
        double seconds, const std::function<void()>& afterTurn = [] {});

private:
    void SendDue(int64_t count);
    void Fill(MediaDatagram& datagram, int64_t nowNs);

    const UniqueFd m_sender;
    sockaddr_in m_destination;
    const double m_fPerSecond;
    const Payload m_payload;
    std::vector<MediaDatagram> m_datagrams; // of one call, as the next two
    std::vector<iovec> m_pieces;
    std::vector<mmsghdr> m_messages;
    uint16_t m_usSeq = 1;
    uint8_t m_nContinuity = 0;
};
