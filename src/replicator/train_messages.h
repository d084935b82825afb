#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "replicator/datagram_target.h"

struct PacketBuffer;
class TrainRefusals;

// Packets to one receiver, laid out as messages for one sendmmsg: trains where sizes allow it, single
// datagrams in between. Lives on the stack of one send; some 5 KB.
class TrainMessages {
public:
    static constexpr int32_t MOST_PACKETS = 64;
    static constexpr int32_t MOST_MESSAGES = 16;

    // Reads at most MOST_PACKETS of the packets; the packets' memory stays theirs.
    TrainMessages(const DatagramTarget& target, PacketBuffer* const* packets, int32_t count);
    TrainMessages(const TrainMessages&) = delete;
    TrainMessages& operator=(const TrainMessages&) = delete;

    // Lays out what comes from packet `first` on, as far as the messages reach; returns how many they are.
    int32_t LayOut(int32_t first, TrainRefusals& refusals);

    mmsghdr* Messages() { return m_messages; }
    // Of what was laid out: the packets of message `index`, and the bytes of its first one.
    int32_t PacketsOf(int32_t index) const { return m_packetsOf[index]; }
    size_t PieceBytesOf(int32_t index) const { return m_pieceBytesOf[index]; }

    int32_t Packets() const { return m_nPackets; }
    // Bytes of `count` packets from `first` on.
    size_t Bytes(int32_t first, int32_t count) const;

private:
    void Fill(int32_t message, int32_t first, int32_t count);
    void AddSegmentSize(int32_t message, size_t bytes);

    sockaddr_in m_address;
    const bool m_bNamed; // the socket is not connected
    int32_t m_nPackets = 0;
    iovec m_pieces[2 * MOST_PACKETS];
    int32_t m_firstPiece[MOST_PACKETS + 1]; // of each packet; the last entry is the end
    size_t m_bytes[MOST_PACKETS];
    mmsghdr m_messages[MOST_MESSAGES];
    int32_t m_packetsOf[MOST_MESSAGES];
    size_t m_pieceBytesOf[MOST_MESSAGES];
    struct alignas(cmsghdr) Control {
        char bytes[CMSG_SPACE(sizeof(uint16_t))];
    };
    Control m_controls[MOST_MESSAGES];
};
