#include "replicator/datagram_send.h"

#include <cerrno>

#include <gtest/gtest.h>

#include "support/loopback.h"

namespace {

using test_support::Bytes;
using test_support::OwnedPacket;
using test_support::Receiver;

TEST(SendDatagram, APacketOfOnePartIsThatPart)
{
    Receiver receiver("127.0.0.2");
    const Receiver sender("127.0.0.3");
    OwnedPacket packet(Bytes { 1, 2, 3 }, Bytes { 4, 5 });
    packet.Get()->partCount = 1;
    EXPECT_EQ(SendDatagram(
                  { sender.Fd(), test_support::SocketAddress("127.0.0.2", receiver.Port()) }, *packet.Get()),
        3);
    EXPECT_EQ(receiver.Next(), (Bytes { 1, 2, 3 }));
    EXPECT_EQ(receiver.SourcePort(), sender.Port());
}

TEST(SendDatagram, APacketOfTwoPartsIsOneDatagram)
{
    Receiver receiver("127.0.0.2");
    const Receiver sender("127.0.0.3");
    OwnedPacket packet(Bytes { 1, 2, 3 }, Bytes { 4, 5 });
    const sockaddr_in destination = test_support::SocketAddress("127.0.0.2", receiver.Port());
    EXPECT_EQ(SendDatagram({ sender.Fd(), destination }, *packet.Get()), 5);
    EXPECT_EQ(receiver.Next(), (Bytes { 1, 2, 3, 4, 5 }));
    EXPECT_FALSE(receiver.HasDatagram());
}

TEST(SendDatagram, AnyOtherPartCountIsPart0FollowedByPart1)
{
    Receiver receiver("127.0.0.2");
    const Receiver sender("127.0.0.3");
    OwnedPacket packet(Bytes { 1, 2, 3 }, Bytes { 4, 5 });
    const sockaddr_in destination = test_support::SocketAddress("127.0.0.2", receiver.Port());
    for (const uint32_t partCount : { 0U, 3U, 4U }) {
        packet.Get()->partCount = partCount;
        EXPECT_EQ(SendDatagram({ sender.Fd(), destination }, *packet.Get()), 5);
        EXPECT_EQ(receiver.Next(), (Bytes { 1, 2, 3, 4, 5 })) << partCount;
    }
}

TEST(SendDatagram, TheLargestDatagramGoesOutAndALargerOneFails)
{
    constexpr size_t LARGEST = 65507;
    Receiver receiver("127.0.0.2");
    const Receiver sender("127.0.0.3");
    const sockaddr_in destination = test_support::SocketAddress("127.0.0.2", receiver.Port());
    OwnedPacket largest { Bytes(LARGEST, 7) };
    EXPECT_EQ(SendDatagram({ sender.Fd(), destination }, *largest.Get()), static_cast<int>(LARGEST));
    EXPECT_EQ(receiver.Next().size(), LARGEST);
    OwnedPacket larger { Bytes(LARGEST + 1, 7) };
    EXPECT_EQ(SendDatagram({ sender.Fd(), destination }, *larger.Get()), -1);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST(SendDatagram, ASocketThatCouldNotBeMadeFails)
{
    OwnedPacket packet(Bytes { 1 });
    const sockaddr_in destination = test_support::SocketAddress("127.0.0.2", 9);
    EXPECT_EQ(SendDatagram({ -1, destination }, *packet.Get()), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
