// Streams of receivers that ping: how they come, start, move and leave.
#include "replicator/stream_keeper.h"

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "support/no_free_descriptor.h"
#include "support/stream_keeper_fixture.h"

namespace {

using namespace test_support;

class StreamKeeperPingTest : public StreamKeeperTest {
protected:
    using StreamKeeperTest::StreamKeeperTest;

    // Where a datagram of the stream comes from when it is sent now; it goes to the receiver.
    static uint16_t SourcePortOf(MyArqSendCB& stream, Receiver& receiver)
    {
        OwnedPacket packet(RtpPacket(1));
        EXPECT_EQ(stream.SendData(packet.Get()), 1);
        (void)receiver.Next();
        return receiver.SourcePort();
    }
};

TEST_F(StreamKeeperPingTest, AFirstPingMakesAStreamAndStartsItsMediaOnTheSourcePort)
{
    CapturedOutput output;
    Ping("127.0.0.2", PORT_A);
    EXPECT_EQ(output.StampedErr(),
        "<time> Process Ping: Added 127.0.0.2 stream ID:0x00000000\n"
        "<time> Media started on port 13330 for 127.0.0.2 ID:0x00000000\n");
    ASSERT_EQ(Count(), 1);
    EXPECT_TRUE(Stream(0).m_bIsAlive);
    EXPECT_TRUE(Stream(0).m_life.HasStarted());
    EXPECT_FALSE(Stream(0).m_life.IsStatic());
    EXPECT_EQ(Stream(0).m_life.PingCount(), 1U);
    EXPECT_EQ(Stream(0).DestinationPortNet(), PORT_A);
    EXPECT_EQ(Stream(0).m_life.MediaPortNet(), PORT_A);
    EXPECT_EQ(Stream(0).ConfiguredPort(), m_lease.Port());
}

TEST_F(StreamKeeperPingTest, AfterAPingMediaLeaveFromThePingPort)
{
    Receiver receiver("127.0.0.2");
    PingQuietly("127.0.0.2", htons(receiver.Port()));
    EXPECT_EQ(SourcePortOf(Stream(0), receiver), m_pingSocket.Port());
}

TEST_F(StreamKeeperPingTest, AnotherPingFromTheSamePortOnlyCounts)
{
    PingQuietly("127.0.0.2", PORT_A);
    CapturedOutput output;
    Ping("127.0.0.2", PORT_A);
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(Stream(0).m_life.PingCount(), 2U);
    EXPECT_EQ(Count(), 1);
}

TEST_F(StreamKeeperPingTest, APingFromAnotherPortLogsTheChangeAndRestartsMediaThere)
{
    PingQuietly("127.0.0.2", PORT_A, 0xAB);
    CapturedOutput output;
    Ping("127.0.0.2", PORT_B, 0xAB);
    EXPECT_EQ(output.StampedErr(),
        "<time> Media port changed from 13330 to 30806 for 127.0.0.2 ID:0x000000ab\n"
        "<time> Media started on port 30806 for 127.0.0.2 ID:0x000000ab\n");
    EXPECT_EQ(Stream(0).DestinationPortNet(), PORT_B);
    EXPECT_TRUE(Stream(0).m_bIsAlive);
    EXPECT_EQ(Stream(0).m_life.PingCount(), 2U);
}

TEST_F(StreamKeeperPingTest, PingsOfStaticStreamsAreOnlyCounted)
{
    Add("127.0.0.2");
    CapturedOutput output;
    Ping("127.0.0.2", PORT_A);
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(Stream(0).m_life.PingCount(), 1U);
    EXPECT_EQ(Stream(0).DestinationPortNet(), htons(m_lease.Port()));
}

TEST_F(StreamKeeperPingTest, APingFromLoopbackMakesAStaticStreamWithoutAMediaStart)
{
    CapturedOutput output;
    Ping("127.0.0.1", PORT_A);
    EXPECT_EQ(output.StampedErr(), "<time> Process Ping: Added 127.0.0.1 stream ID:0x00000000\n");
    EXPECT_TRUE(Stream(0).m_life.IsStatic());
    EXPECT_TRUE(Stream(0).m_bIsAlive);
    EXPECT_EQ(Stream(0).m_life.PingCount(), 1U);
    EXPECT_EQ(Stream(0).DestinationPortNet(), htons(m_lease.Port()));
}

TEST_F(StreamKeeperPingTest, APingWithAKnownIDActsFromAnyAddressAndOnlyThePortFollows)
{
    PingQuietly("127.0.0.2", PORT_A, 7);
    PingQuietly("127.0.0.3", PORT_B, 7);
    ASSERT_EQ(Count(), 1);
    EXPECT_STREQ(Stream(0).HostText(), "127.0.0.2");
    EXPECT_EQ(Stream(0).DestinationPortNet(), PORT_B);
}

TEST_F(StreamKeeperPingTest, APingWithAnUnknownIDMatchesAConfiguredAddressFirst)
{
    Add("127.0.0.2");
    PingQuietly("127.0.0.2", PORT_A, 7);
    ASSERT_EQ(Count(), 1);
    EXPECT_EQ(Stream(0).m_life.PingCount(), 1U);
    PingQuietly("127.0.0.3", PORT_A, 7);
    ASSERT_EQ(Count(), 2);
    EXPECT_EQ(Stream(1).StreamId(), 7U);
}

TEST_F(StreamKeeperPingTest, TwoReceiversBehindOneAddressAreToldApartByTheirIDs)
{
    PingQuietly("127.0.0.2", PORT_A, 7);
    PingQuietly("127.0.0.2", PORT_B, 8);
    PingQuietly("127.0.0.2", PORT_B, 0);
    EXPECT_EQ(Count(), 3);
}

TEST_F(StreamKeeperPingTest, AStopMessageFromAnUnknownReceiverMakesNothing)
{
    CapturedOutput output;
    Leave("127.0.0.2");
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(Count(), 0);
}

TEST_F(StreamKeeperPingTest, AStopMessageRemovesTheStreamAndLogsItsEndOnce)
{
    PingQuietly("127.0.0.2", PORT_A, 7);
    CapturedOutput output;
    Leave("127.0.0.9", 7);
    EXPECT_EQ(output.StampedErr(), "<time> Stream stopped for 127.0.0.2 ID:0x00000007\n");
    EXPECT_EQ(Count(), 0);
}

TEST_F(StreamKeeperPingTest, AStopMessageRemovesAConfiguredStreamToo)
{
    Add("127.0.0.2");
    CapturedOutput output;
    Leave("127.0.0.2");
    EXPECT_EQ(output.StampedErr(), "<time> Stream stopped for 127.0.0.2 ID:0x00000000\n");
    EXPECT_EQ(Count(), 0);
}

TEST_F(StreamKeeperPingTest, AStreamThatIsNotAliveLeavesInSilence)
{
    PingQuietly("127.0.0.2", PORT_A);
    Stream(0).m_bIsAlive = false;
    CapturedOutput output;
    Leave("127.0.0.2");
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(Count(), 0);
}

TEST_F(StreamKeeperPingTest, TheFiftyFirstStreamIsRefused)
{
    for (uint32_t id = 1; id <= 50; ++id)
        PingQuietly("127.0.0.2", PORT_A, id);
    EXPECT_EQ(Count(), 50);
    CapturedOutput output;
    Ping("127.0.0.2", PORT_A, 0x1234ABCD);
    EXPECT_EQ(m_keeper.AddStream("127.0.0.3", 0), 0);
    EXPECT_EQ(output.StampedErr(),
        "<time> Stream not added, no more available streams, ID:0x1234abcd\n"
        "<time> Stream not added, no more available streams, ID:0x00000000\n");
    EXPECT_EQ(Count(), 50);
}

// Neither a socket of its own nor a duplicate of the ping socket: the receiver is known, and that is all.
TEST_F(StreamKeeperPingTest, AMediaStartWithoutAFreeDescriptorIsNotDoneAndTheNextPingStartsIt)
{
    Receiver receiver("127.0.0.2");
    const uint16_t portNet = htons(receiver.Port());
    CapturedOutput output;
    {
        const FailCalls noSocket(SystemCall::OpenSocket, EMFILE);
        const FailCalls noDuplicate(SystemCall::Duplicate, EMFILE);
        Ping("127.0.0.2", portNet, 7);
    }
    EXPECT_EQ(output.StampedErr(),
        "<time> Process Ping: Added 127.0.0.2 stream ID:0x00000007\ndup failed: Too many open files\n");
    ASSERT_EQ(Count(), 1);
    EXPECT_EQ(Stream(0).SocketNumber(0), -1);
    EXPECT_FALSE(Stream(0).m_bIsAlive);
    EXPECT_FALSE(Stream(0).m_life.HasStarted());

    CapturedOutput next;
    Ping("127.0.0.2", portNet, 7);
    EXPECT_EQ(next.StampedErr(),
        "<time> Media started on port " + std::to_string(portNet) + " for 127.0.0.2 ID:0x00000007\n");
    EXPECT_EQ(SourcePortOf(Stream(0), receiver), m_pingSocket.Port());
}

TEST_F(StreamKeeperPingTest, AMediaStartThatFailsOnAnOwnSocketIsTriedAgainByEveryPing)
{
    constexpr int NO_SOCKET = -1;
    Receiver receiver("127.0.0.2");
    const uint16_t portNet = htons(receiver.Port());
    PingQuietly("127.0.0.2", PORT_A);
    CapturedOutput output;
    for (int i = 0; i < 2; ++i)
        m_keeper.ServePing({ Net("127.0.0.2"), portNet, 0, false }, NO_SOCKET, 0);
    EXPECT_EQ(output.StampedErr(),
        "<time> Media port changed from 13330 to " + std::to_string(portNet)
            + " for 127.0.0.2 ID:0x00000000\n"
              "dup2 failed: Bad file descriptor\ndup2 failed: Bad file descriptor\n");
    EXPECT_FALSE(Stream(0).m_bIsAlive);
    PingQuietly("127.0.0.2", portNet);
    EXPECT_TRUE(Stream(0).m_bIsAlive);
    EXPECT_EQ(SourcePortOf(Stream(0), receiver), m_pingSocket.Port());
}

// The duplicate takes the number of the stream's own socket.
TEST_F(StreamKeeperPingTest, AMoveNeedsNoFreeDescriptor)
{
    Receiver receiver("127.0.0.2");
    PingQuietly("127.0.0.2", PORT_A);
    {
        const CapturedOutput output;
        const NoFreeDescriptor none;
        Ping("127.0.0.2", htons(receiver.Port()));
    }
    EXPECT_TRUE(Stream(0).m_bIsAlive);
    EXPECT_EQ(SourcePortOf(Stream(0), receiver), m_pingSocket.Port());
}

// Requests and pings on one port: the streams send from one socket.
class StreamKeeperSharedPortsTest : public StreamKeeperPingTest {
protected:
    StreamKeeperSharedPortsTest() : StreamKeeperPingTest(Ports::Shared) {}
};

TEST_F(StreamKeeperSharedPortsTest, EveryStreamButTheFirstBorrowsTheSocketOfTheFirst)
{
    Add("127.0.0.2");
    const int socket = Stream(0).SocketNumber(0);
    CapturedOutput output;
    EXPECT_EQ(m_keeper.AddStream("127.0.0.3", 0), 1);
    EXPECT_EQ(output.StampedErr(),
        "Dupping socket " + std::to_string(socket)
            + " for stream 1\n<time> AddStream: Added 127.0.0.3 stream ID:0x00000000\n");
    EXPECT_EQ(Stream(1).SocketNumber(0), socket);
    EXPECT_TRUE(Stream(0).OwnsSockets());
    EXPECT_FALSE(Stream(1).OwnsSockets());
}

TEST_F(StreamKeeperSharedPortsTest, AMediaStartOnABorrowedSocketLeavesTheOwnersSocketAlone)
{
    Add("127.0.0.2");
    Receiver receiver("127.0.0.3");
    PingQuietly("127.0.0.3", htons(receiver.Port()));
    ASSERT_EQ(Count(), 2);
    EXPECT_NE(Stream(1).SocketNumber(0), Stream(0).SocketNumber(0));
    EXPECT_EQ(SourcePortOf(Stream(1), receiver), m_pingSocket.Port());
    Receiver other("127.0.0.2", m_lease.Port());
    EXPECT_NE(SourcePortOf(Stream(0), other), m_pingSocket.Port());
}

} // namespace
