// Configured streams: added, deleted, listed, counted.
#include "replicator/stream_keeper.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "arq/arq_send.h"
#include "support/allocation_hooks.h"
#include "support/recording_engine.h"
#include "support/stream_keeper_fixture.h"

namespace {

using namespace test_support;

const Bytes STOP_MESSAGE { 0xDE, 0xAD, 0xBE, 0xEF, 0xBA, 0xBE, 0xFA, 0xCE };

TEST_F(StreamKeeperTest, AddStreamMakesALivingStaticStreamAndSaysSo)
{
    CapturedOutput output;
    EXPECT_EQ(m_keeper.AddStream("127.0.0.2", 0), 1);
    EXPECT_EQ(output.StampedErr(), "<time> AddStream: Added 127.0.0.2 stream ID:0x00000000\n");
    EXPECT_TRUE(Stream(0).m_bIsAlive);
    EXPECT_TRUE(Stream(0).m_life.IsStatic());
    EXPECT_TRUE(Stream(0).m_life.HasStarted());
    ArqSendStats stats {};
    EXPECT_EQ(m_keeper.GetStreamStats(&stats, 0), 1);
    EXPECT_EQ(stats.arqRetries, 2U);
    EXPECT_EQ(stats.arqIntervalMs, 200U);
}

TEST_F(StreamKeeperTest, AddingAnAddressThatIsAStreamReturns1AndAddsNothing)
{
    Add("127.0.0.2");
    CapturedOutput output;
    EXPECT_EQ(m_keeper.AddStream("127.0.0.2", 0), 1);
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(Count(), 1);
}

TEST_F(StreamKeeperTest, AddingTheAddressOfAReceiverWithAnIDMakesASecondStream)
{
    PingQuietly("127.0.0.2", PORT_A, 7);
    Add("127.0.0.2");
    EXPECT_EQ(Count(), 2);
}

TEST_F(StreamKeeperTest, UnknownHostsAreReportedAndNeitherAddedNorDeleted)
{
    CapturedOutput output;
    EXPECT_EQ(m_keeper.AddStream("256.1.1.1", 0), 0);
    EXPECT_EQ(m_keeper.DeleteStream("1.2.3.4.5"), 0);
    EXPECT_EQ(m_keeper.AddStream(nullptr, 0), 0);
    EXPECT_EQ(m_keeper.DeleteStream(nullptr), 0);
    EXPECT_EQ(m_keeper.CreateMulticastStream("256.1.1.2"), nullptr);
    EXPECT_EQ(output.Err(),
        "unknown host '256.1.1.1'\nunknown host '1.2.3.4.5'\nunknown host ''\nunknown host ''\n"
        "unknown host '256.1.1.2'\n");
    EXPECT_EQ(Count(), 0);
}

TEST_F(StreamKeeperTest, AMulticastStreamIsMadeLikeAConfiguredOneAndStandsOutsideTheTable)
{
    CapturedOutput output;
    const auto stream = m_keeper.CreateMulticastStream("239.1.1.1");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(output.StampedErr(), "<time> AddStream: Added 239.1.1.1 stream ID:0x00000000\n");
    EXPECT_TRUE(stream->m_bIsAlive);
    EXPECT_TRUE(stream->m_life.IsStatic());
    EXPECT_EQ(stream->DestinationPortNet(), htons(m_lease.Port()));
    EXPECT_EQ(Count(), 0);
}

TEST_F(StreamKeeperTest, StreamsThatAreMadeLaterSendToTheNewPort)
{
    Add("127.0.0.2");
    m_keeper.SetDestPort(4321);
    Add("127.0.0.3");
    EXPECT_EQ(Stream(0).ConfiguredPort(), m_lease.Port());
    EXPECT_EQ(Stream(1).ConfiguredPort(), 4321);
    EXPECT_EQ(m_keeper.DestPort(), 4321);
}

// Each allocation fails in turn. A stream without a socket is kept, one without an engine is not.
TEST_F(StreamKeeperTest, AStreamThatCannotBeMadeWholeIsNotAdded)
{
    constexpr int MORE_THAN_ENOUGH = 30;
    const CapturedOutput output;
    int refused = 0;
    bool isFired = true;
    for (int n = 1; isFired && n < MORE_THAN_ENOUGH; ++n) {
        int result = 0;
        {
            const FailNthAllocation failing(n);
            result = m_keeper.AddStream("127.0.0.2", 0);
            isFired = failing.Fired();
        }
        EXPECT_EQ(Count(), result);
        refused += result == 0 ? 1 : 0;
        if (result == 1)
            Leave("127.0.0.2");
        EXPECT_EQ(Count(), 0);
    }
    EXPECT_FALSE(isFired);
    EXPECT_GE(refused, 3) << "the stream, its engine and the engine's ring";
}

TEST_F(StreamKeeperTest, DeletingAStreamSendsFiveStopMessages20MsApartAndLogsItsEndOnce)
{
    Receiver receiver("127.0.0.2", m_lease.Port());
    Add("127.0.0.2");
    CapturedOutput output;
    EXPECT_EQ(m_keeper.DeleteStream("127.0.0.2"), 1);
    EXPECT_EQ(m_waits.SleepsMs(), (std::vector<uint32_t> { 20, 20, 20, 20, 20 }));
    EXPECT_EQ(output.StampedErr(), "<time> Stream stopped for 127.0.0.2 ID:0x00000000\n");
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(receiver.Next(), STOP_MESSAGE);
    EXPECT_FALSE(receiver.HasDatagram());
    EXPECT_EQ(Count(), 0);
    EXPECT_EQ(m_stats.m_nTxPackets, 0U);
}

// A connected stream socket takes datagrams' calls and ignores their destination; unlike a datagram socket on
// loopback its buffer fills up.
class BlockedSocket {
public:
    BlockedSocket()
        : m_listener(::socket(AF_INET, SOCK_STREAM, 0)),
          m_socket(::socket(AF_INET, SOCK_STREAM, 0))
    {
        EXPECT_TRUE(Bind(m_listener.Get(), "127.0.0.1", 0));
        EXPECT_EQ(listen(m_listener.Get(), 1), 0);
        const sockaddr_in to = SocketAddress("127.0.0.1", LocalPort(m_listener.Get()));
        EXPECT_EQ(connect(m_socket.Get(), reinterpret_cast<const sockaddr*>(&to), sizeof(to)), 0);
        const timeval longest { LONGEST_WAIT_MS / 1000, 0 }; // a call that does wait is not lost for ever
        EXPECT_EQ(setsockopt(m_socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof(longest)), 0);
        const Bytes data(65536);
        while (send(m_socket.Get(), data.data(), data.size(), MSG_DONTWAIT) > 0) {}
        while (send(m_socket.Get(), data.data(), 1, MSG_DONTWAIT) > 0) {}
    }
    int Fd() const { return m_socket.Get(); }

private:
    UniqueFd m_listener;
    UniqueFd m_socket;
};

TEST_F(StreamKeeperTest, DeletingAStreamWhoseSocketTakesNothingMoreDoesNotWait)
{
    const BlockedSocket blocked;
    const CapturedOutput output;
    m_keeper.ServePing({ Net("127.0.0.2"), PORT_A, 0, false }, blocked.Fd(), 0);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(m_keeper.DeleteStream("127.0.0.2"), 1);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(LONGEST_WAIT_MS));
    EXPECT_EQ(Count(), 0);
}

TEST_F(StreamKeeperTest, DeletingFindsStreamsWithoutIDOnly)
{
    PingQuietly("127.0.0.2", PORT_A, 7);
    CapturedOutput output;
    EXPECT_EQ(m_keeper.DeleteStream("127.0.0.2"), 0);
    EXPECT_EQ(m_keeper.DeleteStream("127.0.0.3"), 0);
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(Count(), 1);
    PingQuietly("127.0.0.3", PORT_A);
    const CapturedOutput more;
    EXPECT_EQ(m_keeper.DeleteStream("127.0.0.3"), 1);
    EXPECT_EQ(Count(), 1);
}

TEST_F(StreamKeeperTest, RemovingEntry0OfThreeMovesEntry2IntoItsPlace)
{
    Add("127.0.0.2");
    Add("127.0.0.3");
    Add("127.0.0.4");
    const CapturedOutput output;
    EXPECT_EQ(m_keeper.DeleteStream("127.0.0.2"), 1);
    EXPECT_EQ(List(), "127.0.0.4,127.0.0.3");
}

TEST_F(StreamKeeperTest, TheListHasTheAddressesInTableOrderBehindEachOther)
{
    Add("127.0.0.2");
    Add("127.0.0.33");
    PingQuietly("127.0.0.4", PORT_A, 7);
    EXPECT_EQ(List(), "127.0.0.2,127.0.0.33,127.0.0.4");
}

TEST_F(StreamKeeperTest, WithoutStreamsTheListWritesNothingAtAll)
{
    char text[] = "as it was";
    EXPECT_EQ(m_keeper.ListStreams(text, sizeof(text)), 1);
    EXPECT_STREQ(text, "as it was");
}

TEST_F(StreamKeeperTest, TheListStaysWithinItsRoomAndHasWholeAddressesOnly)
{
    Add("127.0.0.2");
    Add("127.0.0.3");
    constexpr size_t BOTH = sizeof("127.0.0.2,127.0.0.3");
    for (const auto& [room, expected] : { std::pair<size_t, const char*> { BOTH, "127.0.0.2,127.0.0.3" },
             { BOTH - 1, "127.0.0.2" }, { sizeof("127.0.0.2"), "127.0.0.2" } }) {
        std::vector<char> buffer(room + 1, '#');
        EXPECT_EQ(m_keeper.ListStreams(buffer.data(), room), 1);
        EXPECT_STREQ(buffer.data(), expected);
        EXPECT_EQ(buffer[room], '#');
    }
    char tooSmall[] = "127.0.0."; // one short
    EXPECT_EQ(m_keeper.ListStreams(tooSmall, sizeof(tooSmall)), 1);
    EXPECT_STREQ(tooSmall, "127.0.0.");
    EXPECT_EQ(m_keeper.ListStreams(tooSmall, 0), 1);
}

TEST_F(StreamKeeperTest, StatisticsAreThoseOfTheStreamWithThatIndex)
{
    Add("127.0.0.2");
    Add("127.0.0.3");
    ReplaceEngine(Stream(0)).m_stats.retransmitted = 10;
    ReplaceEngine(Stream(1)).m_stats.retransmitted = 11;
    ArqSendStats stats {};
    EXPECT_EQ(m_keeper.GetStreamStats(&stats, 1), 1);
    EXPECT_EQ(stats.retransmitted, 11U);
    m_keeper.ClearStreamStats(1);
    EXPECT_EQ(m_keeper.GetStreamStats(&stats, 1), 1);
    EXPECT_EQ(stats.retransmitted, 0U);
    EXPECT_EQ(m_keeper.GetStreamStats(&stats, 0), 1);
    EXPECT_EQ(stats.retransmitted, 10U);
}

TEST_F(StreamKeeperTest, StatisticsOfAnIndexThatIsNoStreamAreRefused)
{
    Add("127.0.0.2");
    ReplaceEngine(Stream(0)).m_stats.retransmitted = 10;
    ArqSendStats stats {};
    stats.retransmitted = 77;
    for (const int32_t index : { -1, 1, 50, 51, 2147483647, -2147483647 }) {
        EXPECT_EQ(m_keeper.GetStreamStats(&stats, index), 0) << index;
        m_keeper.ClearStreamStats(index);
    }
    EXPECT_EQ(stats.retransmitted, 77U);
    EXPECT_EQ(m_keeper.GetStreamStats(&stats, 0), 1);
    EXPECT_EQ(stats.retransmitted, 10U);
}

} // namespace
