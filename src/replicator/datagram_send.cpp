#include "replicator/datagram_send.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>

#include "input/packet_buffer.h"

namespace {

iovec Piece(const PacketBuffer& packet, int part)
{
    return { packet.parts[part], static_cast<size_t>(packet.partLengths[part].Load()) };
}

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

ssize_t SendTwoPieces(int fd, const PacketBuffer& packet, const sockaddr_in& destination)
{
    iovec pieces[2] = { Piece(packet, 0), Piece(packet, 1) };
    msghdr message {};
    // The interface is not const, the call only reads.
    message.msg_name = const_cast<sockaddr_in*>(&destination);
    message.msg_namelen = sizeof(destination);
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    return Uninterrupted([&] { return sendmsg(fd, &message, 0); });
}

} // namespace

int SendDatagram(int fd, const uint8_t* data, size_t length, const sockaddr_in& destination, int flags)
{
    const auto* address = reinterpret_cast<const sockaddr*>(&destination);
    return static_cast<int>(
        Uninterrupted([&] { return sendto(fd, data, length, flags, address, sizeof(destination)); }));
}

int SendDatagram(int fd, const PacketBuffer& packet, const sockaddr_in& destination)
{
    if (packet.partCount != 1)
        return static_cast<int>(SendTwoPieces(fd, packet, destination));
    return SendDatagram(fd, packet.Data(), static_cast<size_t>(packet.Length()), destination);
}
