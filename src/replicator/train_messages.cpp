#include "replicator/train_messages.h"

#include <netinet/udp.h>

#include <algorithm>
#include <cstring>
#include <numeric>

#include "pacing/ms_clock.h"
#include "replicator/packet_pieces.h"
#include "replicator/train_refusals.h"
#include "replicator/train_rule.h"

TrainMessages::TrainMessages(const DatagramTarget& target, PacketBuffer* const* packets, int32_t count)
    : m_address(target.address),
      m_bNamed(!target.isConnected),
      m_nPackets(std::min(count, MOST_PACKETS))
{
    int32_t used = 0;
    for (int32_t i = 0; i < m_nPackets; ++i) {
        const PacketPieces one(*packets[i]);
        m_firstPiece[i] = used;
        m_bytes[i] = one.Bytes();
        for (size_t piece = 0; piece < one.count; ++piece)
            m_pieces[used++] = one.pieces[piece];
    }
    m_firstPiece[m_nPackets] = used;
}

int32_t TrainMessages::LayOut(int32_t first, TrainRefusals& refusals)
{
    int32_t count = 0;
    while (count < MOST_MESSAGES && first < m_nPackets) {
        int32_t packets = TrainLength(m_bytes + first, m_nPackets - first);
        if (packets > 1 && !refusals.Allows(m_bytes[first], GetSteadyMs))
            packets = 1;
        Fill(count++, first, packets);
        first += packets;
    }
    return count;
}

size_t TrainMessages::Bytes(int32_t first, int32_t count) const
{
    return std::accumulate(m_bytes + first, m_bytes + first + count, size_t { 0 });
}

void TrainMessages::Fill(int32_t message, int32_t first, int32_t count)
{
    msghdr header {};
    header.msg_name = m_bNamed ? &m_address : nullptr;
    header.msg_namelen = m_bNamed ? sizeof(m_address) : 0;
    header.msg_iov = m_pieces + m_firstPiece[first];
    header.msg_iovlen = static_cast<size_t>(m_firstPiece[first + count] - m_firstPiece[first]);
    m_messages[message].msg_hdr = header;
    m_packetsOf[message] = count;
    m_pieceBytesOf[message] = m_bytes[first];
    if (count > 1)
        AddSegmentSize(message, m_bytes[first]);
}

void TrainMessages::AddSegmentSize(int32_t message, size_t bytes)
{
    msghdr& header = m_messages[message].msg_hdr;
    header.msg_control = m_controls[message].bytes;
    header.msg_controllen = sizeof(m_controls[message].bytes);
    cmsghdr* control = CMSG_FIRSTHDR(&header);
    control->cmsg_level = SOL_UDP;
    control->cmsg_type = UDP_SEGMENT;
    control->cmsg_len = CMSG_LEN(sizeof(uint16_t));
    const auto segmentBytes = static_cast<uint16_t>(bytes); // a train's piece is shorter than an IPv4 packet
    std::memcpy(CMSG_DATA(control), &segmentBytes, sizeof(segmentBytes));
}
