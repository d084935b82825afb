#include "input/udp_input.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "base/most_together.h"
#include "base/unique_fd.h"
#include "input/address.h"
#include "input/data_callback_region.h"
#include "input/datagram_reader.h"
#include "input/packet_buffer.h"
#include "input/packet_queue.h"

namespace {

constexpr uint32_t LOWER_HEADER_BYTES = 42; // Ethernet, IPv4 and UDP
constexpr suseconds_t RUN_FLAG_POLL_US = 250000;

// Binds to the group itself, so that other groups on the same port stay out, or to all addresses.
bool BindInput(int socket, const UdpInput& input)
{
    sockaddr_in local {};
    local.sin_family = AF_INET;
    local.sin_port = htons(input.listenPort);
    local.sin_addr.s_addr = IsMulticast(input.multicastGroup) ? input.multicastGroup : htonl(INADDR_ANY);
    return bind(socket, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0;
}

UniqueFd OpenInputSocket(const UdpInput& input)
{
    UniqueFd socket(::socket(AF_INET, SOCK_DGRAM, 0));
    if (!socket.IsValid()) {
        fprintf(stderr, "cannot open socket\n");
        return socket;
    }
    const int on = 1;
    (void)setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (!BindInput(socket.Get(), input)) {
        socket.Reset();
        fprintf(stderr, "cannot bind port number %d \n", input.listenPort);
    }
    return socket;
}

ip_mreq Membership(in_addr_t group)
{
    ip_mreq membership {};
    membership.imr_multiaddr.s_addr = group;
    membership.imr_interface.s_addr = htonl(INADDR_ANY);
    return membership;
}

void JoinGroup(int socket, in_addr_t group)
{
    const ip_mreq membership = Membership(group);
    if (setsockopt(socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership)) != 0)
        perror("IP_ADD_MEMBERSHIP failed"); // nothing will arrive; say why
    const uint8_t off = 0;
    (void)setsockopt(socket, IPPROTO_IP, IP_MULTICAST_LOOP, &off, sizeof(off));
}

void LeaveGroup(int socket, in_addr_t group)
{
    const ip_mreq membership = Membership(group);
    (void)setsockopt(socket, IPPROTO_IP, IP_DROP_MEMBERSHIP, &membership, sizeof(membership));
}

bool ReadReceiveBuffer(int socket, int32_t* bytes)
{
    socklen_t size = sizeof(*bytes);
    if (getsockopt(socket, SOL_SOCKET, SO_RCVBUF, bytes, &size) == 0)
        return true;
    perror("getsockopt failed:");
    return false;
}

// Live streams come in bursts: a larger buffer keeps what arrives while this thread waits for a turn.
void EnlargeReceiveBuffer(int socket)
{
    int32_t bytes = 0;
    if (!ReadReceiveBuffer(socket, &bytes))
        return;
    fprintf(stderr, "Rx bufferSize = %d\n", bytes);
    const int32_t wanted = WantedReceiveBuffer(bytes);
    if (setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof(wanted)) != 0)
        fprintf(stderr, "setsockopt() SO_RCVBUF: error %d\n", errno);
    else if (ReadReceiveBuffer(socket, &bytes))
        fprintf(stderr, "New Rx bufferSize = %d\n", bytes);
}

// Lets the receive loop look at the run flag when no stream comes in.
void LimitReceiveWait(int socket)
{
    const timeval limit { 0, RUN_FLAG_POLL_US };
    (void)setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
}

// Only the first sender is recorded.
void RecordSource(const UdpInput& input, const sockaddr_in& source)
{
    if (input.sourceAddress[0] == '\0')
        (void)inet_ntop(AF_INET, &source.sin_addr, input.sourceAddress, sizeof(input.sourceAddress));
}

void Transform(const InputTransform& transform, const PacketBuffer& packet, int32_t received)
{
    if (transform.session == nullptr)
        return;
    const DataRegion region = CallbackRegion(received, packet.Length());
    if (region.length > 0)
        (void)transform.callback(transform.session, packet.Data() + region.offset, region.length);
}

// Makes the received datagram the packet's.
void FillPacket(const UdpInput& input, const ReceivedDatagram& datagram, PacketBuffer& packet)
{
    input.inputBytes.Add(static_cast<uint32_t>(datagram.length) + LOWER_HEADER_BYTES);
    RecordSource(input, datagram.source);
    datagram.PutInto(packet.Data());
    Transform(input.transform, packet, datagram.length);
    packet.SetLength(datagram.length);
}

// Where datagrams go, one after the other: the packet in hand is filled and handed on, and
// the next one taken from the pool.
class InputSide {
public:
    explicit InputSide(const UdpInput& input) : m_input(input), m_packet(input.pool.get()) {}

    uint8_t* Slice() { return m_packet->Data(); }

    // An empty datagram is none, and its packet is the next one's.
    void Take(const ReceivedDatagram& datagram)
    {
        if (datagram.length == 0)
            return;
        FillPacket(m_input, datagram, *m_packet);
        m_filled[m_nFilled++] = m_packet;
        m_packet = m_input.pool.get();
        if (m_input.transform.session != nullptr)
            HandOn(); // what transforms may take its time: no packet waits for the next one's
    }

    void HandOn()
    {
        if (m_nFilled != 0)
            (void)m_input.queue.pushBatch(m_filled, m_nFilled, PacketQueue::NO_LIMIT);
        m_nFilled = 0;
    }

private:
    const UdpInput& m_input;
    PacketBuffer* m_packet;
    PacketBuffer* m_filled[MOST_TOGETHER] {};
    int32_t m_nFilled = 0;
};

void ReceiveStream(int socket, const UdpInput& input)
{
    DatagramReader reader(MOST_TOGETHER);
    InputSide side(input);
    while (input.running) {
        // While main keeps up datagrams come one by one, and more are not worth a look.
        const bool isMainBehind = input.queue.Count() > 1;
        const int32_t received = isMainBehind ? reader.ReceiveMany(socket, side.Slice())
                                              : reader.ReceiveOne(socket, side.Slice());
        for (int32_t i = 0; i < received; ++i)
            side.Take(reader.Datagram(i));
        side.HandOn();
    }
}

} // namespace

void RunUdpInput(const UdpInput& input)
{
    const UniqueFd socket = OpenInputSocket(input);
    if (!socket.IsValid())
        return;
    printf("Listening on port %d for incoming stream\n", input.listenPort);
    const bool isGroup = IsMulticast(input.multicastGroup);
    if (isGroup)
        JoinGroup(socket.Get(), input.multicastGroup);
    EnlargeReceiveBuffer(socket.Get());
    LimitReceiveWait(socket.Get());
    ReceiveStream(socket.Get(), input);
    (void)input.queue.push(nullptr, PacketQueue::NO_LIMIT); // wakes main, which skips it and sees the flag
    if (isGroup)
        LeaveGroup(socket.Get(), input.multicastGroup);
}

int32_t WantedReceiveBuffer(int32_t currentBytes)
{
    constexpr int32_t GROWTH = 4;
    constexpr int32_t MAX_BYTES = 524288;
    return currentBytes >= MAX_BYTES / GROWTH ? MAX_BYTES : currentBytes * GROWTH;
}
