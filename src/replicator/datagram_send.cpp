#include "replicator/datagram_send.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>

#include "replicator/earlier_error.h"
#include "replicator/packet_pieces.h"

namespace {

// What earlier datagrams met may be reported as often as an answer to one comes in between.
constexpr int MOST_TRIES = 3;

// A signal that interrupts a send that waits is no reason to lose the datagram.
template <typename Send>
ssize_t Uninterrupted(Send send)
{
    ssize_t sent = 0;
    do {
        sent = send();
    } while (sent < 0 && errno == EINTR);
    return sent;
}

msghdr MessageTo(sockaddr_in* address, iovec* pieces, size_t count)
{
    msghdr message {};
    message.msg_name = address;
    message.msg_namelen = address != nullptr ? sizeof(*address) : 0;
    message.msg_iov = pieces;
    message.msg_iovlen = count;
    return message;
}

ssize_t SendMessage(int fd, const msghdr& message, int flags)
{
    return Uninterrupted([&] { return sendmsg(fd, &message, flags); });
}

// Routing chooses the source address, as it does where a socket is not connected.
ssize_t SendAsUnconnected(const DatagramTarget& target, iovec* pieces, size_t count, int flags)
{
    sockaddr_in address = target.address;
    msghdr message = MessageTo(&address, pieces, count);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    ssize_t sent = -1;
    for (int i = 0; i < MOST_TRIES && sent < 0; ++i) {
        sent = SendMessage(target.fd, message, flags);
        if (sent < 0 && !IsOfEarlierDatagram(errno))
            break;
    }
    return sent;
}

ssize_t SendConnected(const DatagramTarget& target, iovec* pieces, size_t count, int flags)
{
    const ssize_t sent = count == 1
        ? Uninterrupted([&] { return send(target.fd, pieces[0].iov_base, pieces[0].iov_len, flags); })
        : SendMessage(target.fd, MessageTo(nullptr, pieces, count), flags);
    if (sent >= 0 || errno == EAGAIN)
        return sent;
    return SendAsUnconnected(target, pieces, count, flags);
}

ssize_t SendOnePiece(const DatagramTarget& target, const iovec& piece, int flags)
{
    const auto* address = reinterpret_cast<const sockaddr*>(&target.address);
    return Uninterrupted([&] {
        return sendto(target.fd, piece.iov_base, piece.iov_len, flags, address, sizeof(target.address));
    });
}

ssize_t SendPieces(const DatagramTarget& target, iovec* pieces, size_t count, int flags)
{
    if (target.isConnected)
        return SendConnected(target, pieces, count, flags);
    if (count == 1)
        return SendOnePiece(target, pieces[0], flags);
    sockaddr_in address = target.address; // the interface is not const, the call only reads
    return SendMessage(target.fd, MessageTo(&address, pieces, count), flags);
}

} // namespace

int SendDatagram(const DatagramTarget& target, const uint8_t* data, size_t length, int flags)
{
    iovec piece { const_cast<uint8_t*>(data), length }; // as above
    return static_cast<int>(SendPieces(target, &piece, 1, flags));
}

int SendDatagram(const DatagramTarget& target, const PacketBuffer& packet, int flags)
{
    PacketPieces pieces(packet);
    return static_cast<int>(SendPieces(target, pieces.pieces, pieces.count, flags));
}
