#include "replicator/datagram_send.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include "input/packet_buffer.h"

namespace {

iovec Piece(const PacketBuffer& packet, int part)
{
    return { packet.parts[part], static_cast<size_t>(packet.partLengths[part].Load()) };
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
    return sendmsg(fd, &message, 0);
}

} // namespace

int SendDatagram(int fd, const uint8_t* data, size_t length, const sockaddr_in& destination, int flags)
{
    return static_cast<int>(sendto(
        fd, data, length, flags, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination)));
}

int SendDatagram(int fd, const PacketBuffer& packet, const sockaddr_in& destination)
{
    if (packet.partCount != 1)
        return static_cast<int>(SendTwoPieces(fd, packet, destination));
    return SendDatagram(fd, packet.Data(), static_cast<size_t>(packet.Length()), destination);
}
