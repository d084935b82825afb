#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <vector>

#include "base/unique_fd.h"
#include "media.h"

// A stream of MediaDatagrams to the input of a process under test, evenly spaced or in bursts of the same
// mean rate.
class Feed {
public:
    Feed(uint16_t inputPort, int perSecond, int burst);
    Feed(const Feed&) = delete; // its messages point into it
    Feed& operator=(const Feed&) = delete;

    // Sends for `seconds`; returns the number of datagrams. What is due within 100 us leaves together: a
    // sender that sleeps before each of 20,000 datagrams a second would take the machine from the process
    // under test.
    int64_t Run(double seconds);

    // One datagram, at once.
    void SendOne();

private:
    // A burst, by one call: it comes as fast as this machine can send, as from a network card.
    void SendBurst();

    UniqueFd m_sender;
    sockaddr_in m_input;
    int64_t m_nPeriodNs; // from burst to burst
    int m_nBurst;
    std::vector<MediaDatagram> m_datagrams; // of one burst, as the next two
    std::vector<iovec> m_pieces;
    std::vector<mmsghdr> m_messages;
    uint16_t m_usSeq = 1;
};
