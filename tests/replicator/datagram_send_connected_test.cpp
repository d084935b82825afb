// Plain sends from a connected socket, where the kernel tells of earlier datagrams too.
#include "replicator/datagram_send.h"

#include <array>
#include <cerrno>

#include <gtest/gtest.h>

#include "support/loopback.h"
#include "support/send_hooks.h"

namespace {

using namespace test_support;

constexpr int TRIES = 4; // one as a connected socket, the others as one that is not

class ConnectedSend : public testing::Test {
protected:
    ConnectedSend()
    {
        EXPECT_EQ(connect(m_sender.Fd(), reinterpret_cast<const sockaddr*>(&m_target.address),
                      sizeof(m_target.address)),
            0);
    }

    int Send(const Bytes& data, int flags = 0)
    {
        return SendDatagram(m_target, data.data(), data.size(), flags);
    }

    Receiver m_sender { "127.0.0.3" };
    PortLease m_lease; // nobody has the port open at the receiver's address
    const DatagramTarget m_target { m_sender.Fd(), SocketAddress("127.0.0.2", m_lease.Port()), true };
};

TEST_F(ConnectedSend, ADatagramLeavesWithoutItsAddressBeingNamed)
{
    Receiver receiver("127.0.0.2", m_lease.Port());
    const WatchedSends sends;
    OwnedPacket whole(Bytes { 1, 2 });
    OwnedPacket inTwo(Bytes { 3 }, Bytes { 4, 5 });
    EXPECT_EQ(SendDatagram(m_target, *whole.Get()), 2);
    EXPECT_EQ(SendDatagram(m_target, *inTwo.Get()), 3);
    EXPECT_EQ(receiver.Next(), (Bytes { 1, 2 }));
    EXPECT_EQ(receiver.Next(), (Bytes { 3, 4, 5 }));
    ASSERT_EQ(sends.Calls().size(), 2U);
    EXPECT_EQ(sends.Calls()[0].kind, SendKind::Send);
    EXPECT_EQ(sends.Calls()[1].kind, SendKind::SendMsg);
    EXPECT_FALSE(sends.Calls()[1].messages[0].isNamed);
}

// The kernel refuses every other send to a port that nobody has open; it does so once more to whoever sends first
// after the port was opened.
TEST_F(ConnectedSend, WhileThePortIsClosedNoSendFailsAndWhatComesOnceItIsOpenArrivesWholeAndInOrder)
{
    for (uint8_t i = 0; i < 9; ++i)
        EXPECT_EQ(Send({ i, i }), 2);
    Receiver receiver("127.0.0.2", m_lease.Port());
    for (uint8_t i = 10; i < 15; ++i)
        EXPECT_EQ(Send({ i }), 1);
    for (uint8_t i = 10; i < 15; ++i)
        EXPECT_EQ(receiver.Next(), (Bytes { i }));
    EXPECT_FALSE(receiver.HasDatagram());
}

TEST_F(ConnectedSend, APacketOfTwoPartsIsSentAgainToo)
{
    OwnedPacket packet(Bytes { 1 }, Bytes { 2, 3 });
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(SendDatagram(m_target, *packet.Get()), 3);
    Receiver receiver("127.0.0.2", m_lease.Port());
    EXPECT_EQ(SendDatagram(m_target, *packet.Get()), 3);
    EXPECT_EQ(receiver.Next(), (Bytes { 1, 2, 3 }));
    EXPECT_FALSE(receiver.HasDatagram());
}

TEST_F(ConnectedSend, TheSecondTryIsThatOfASocketThatIsNotConnected)
{
    Receiver receiver("127.0.0.2", m_lease.Port());
    const WatchedSends sends(
        RefuseFirst(1, EINVAL)); // as where the source address is no longer this machine's
    EXPECT_EQ(Send({ 1, 2, 3 }), 3);
    EXPECT_EQ(receiver.Next(), (Bytes { 1, 2, 3 }));
    ASSERT_EQ(sends.Calls().size(), 2U);
    EXPECT_EQ(sends.Calls()[0].kind, SendKind::Send);
    EXPECT_TRUE(sends.Calls()[1].messages[0].isNamed);
    EXPECT_TRUE(sends.Calls()[1].messages[0].isRouted);
}

TEST_F(ConnectedSend, WhatMayBeSaidOfAnEarlierDatagramIsNotYetSaidOfThisOne)
{
    Receiver receiver("127.0.0.2", m_lease.Port());
    for (const int error :
        { ECONNREFUSED, EHOSTUNREACH, ENETUNREACH, ENOPROTOOPT, EHOSTDOWN, ENONET, EPROTO, EOPNOTSUPP }) {
        const WatchedSends sends(RefuseFirst(TRIES - 1, error));
        EXPECT_EQ(Send({ 7 }), 1) << error;
        EXPECT_EQ(receiver.Next(), (Bytes { 7 })) << error;
        EXPECT_EQ(sends.Calls().size(), static_cast<size_t>(TRIES)) << error;
    }
    EXPECT_FALSE(receiver.HasDatagram());
}

TEST_F(ConnectedSend, AWayThatStaysClosedIsReportedAfterAFewTries)
{
    const WatchedSends sends(RefuseFirst(100, ENETUNREACH));
    EXPECT_EQ(Send({ 7 }), -1);
    EXPECT_EQ(errno, ENETUNREACH);
    EXPECT_EQ(sends.Calls().size(), static_cast<size_t>(TRIES));
}

TEST_F(ConnectedSend, AnyOtherErrorOfTheSecondTryIsReportedAtOnce)
{
    const WatchedSends sends(RefuseFirst(100, EPERM));
    EXPECT_EQ(Send({ 7 }), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(sends.Calls().size(), 2U);
}

TEST_F(ConnectedSend, AFullSendBufferIsNoReasonForASecondTry)
{
    const WatchedSends sends(RefuseFirst(1, EAGAIN));
    EXPECT_EQ(Send({ 7 }, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(sends.Calls().size(), 1U);
}

TEST_F(ConnectedSend, TheFlagsGoWithEachTry)
{
    const WatchedSends sends(RefuseFirst(100, ECONNREFUSED));
    EXPECT_EQ(Send({ 7 }, MSG_DONTWAIT), -1);
    for (const SendCall& call : sends.Calls())
        EXPECT_EQ(call.flags, MSG_DONTWAIT);
}

TEST_F(ConnectedSend, ASignalIsNoReasonForASecondTryEither)
{
    Receiver receiver("127.0.0.2", m_lease.Port());
    const WatchedSends sends(RefuseFirst(2, EINTR));
    EXPECT_EQ(Send({ 7 }), 1);
    EXPECT_EQ(receiver.Next(), (Bytes { 7 }));
    for (const SendCall& call : sends.Calls())
        EXPECT_EQ(call.kind, SendKind::Send);
}

// A socket that is not connected, and packets of one part and of two.
class UnconnectedSend : public testing::Test {
protected:
    int Send(const PacketBuffer& packet) const { return SendDatagram(m_target, packet); }
    std::array<PacketBuffer*, 2> Packets() { return { m_whole.Get(), m_inTwo.Get() }; }

    const Receiver m_sender { "127.0.0.3" };
    Receiver m_receiver { "127.0.0.2" };
    const DatagramTarget m_target { m_sender.Fd(), SocketAddress("127.0.0.2", m_receiver.Port()) };
    OwnedPacket m_whole { Bytes { 1 } };
    OwnedPacket m_inTwo { Bytes { 2 }, Bytes { 3 } };
};

TEST_F(UnconnectedSend, TheAddressIsNamedAndAnErrorIsReportedAtOnce)
{
    for (const PacketBuffer* packet : Packets()) {
        const WatchedSends sends(RefuseFirst(1, ECONNREFUSED));
        EXPECT_EQ(Send(*packet), -1);
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_EQ(Send(*packet), packet->TotalLength());
        ASSERT_EQ(sends.Calls().size(), 2U);
        EXPECT_TRUE(sends.Calls()[1].messages[0].isNamed);
        EXPECT_EQ(m_receiver.Next(), BytesOf(*packet));
    }
}

TEST_F(UnconnectedSend, ASignalInterruptsNoSend)
{
    for (const PacketBuffer* packet : Packets()) {
        const WatchedSends sends(RefuseFirst(3, EINTR));
        EXPECT_EQ(Send(*packet), packet->TotalLength());
        EXPECT_EQ(sends.Calls().size(), 4U);
        EXPECT_EQ(m_receiver.Next(), BytesOf(*packet));
    }
}

} // namespace
