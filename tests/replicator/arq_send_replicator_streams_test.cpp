#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "replicator/my_socket_listener.h"
#include "replicator/replicator_fixture.h"
#include "support/allocation_hooks.h"

namespace {

using namespace test_support;

const Bytes STOP { 0xDE, 0xAD, 0xBE, 0xEF, 0xBA, 0xBE, 0xFA, 0xCE };
constexpr uint16_t PORT_A = 0x3412; // raw 16 bits, as the network delivers them
constexpr uint16_t PORT_B = 0x7856;

// Streams come and go. The threads are stopped: each step is the test's own.
class StreamsTest : public ReplicatorTest {
protected:
    StreamsTest()
    {
        const CapturedOutput output;
        (void)BuildStopped();
    }

    int32_t Count() const { return CountOfStreams(*m_replicator); }
    void Add(const char* address)
    {
        const CapturedOutput output;
        EXPECT_EQ(m_replicator->AddStream(address, 0), 1);
    }
    void PingQuietly(const char* address, uint16_t portNet, uint32_t streamId = 0)
    {
        const CapturedOutput output;
        Ping(address, portNet, streamId);
    }
};

TEST_F(StreamsTest, AFirstPingMakesAStreamAndStartsItsMediaOnTheSourcePort)
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
    EXPECT_EQ(Stream(0).ConfiguredPort(), m_pingLease.Port());
}

TEST_F(StreamsTest, AfterAPingMediaLeaveFromThePingPort)
{
    Receiver receiver("127.0.0.2");
    PingQuietly("127.0.0.2", htons(receiver.Port()));
    OwnedPacket packet(RtpPacket(1));
    EXPECT_EQ(Stream(0).SendData(packet.Get()), 1);
    (void)receiver.Next();
    EXPECT_EQ(receiver.SourcePort(), m_pingLease.Port());
}

TEST_F(StreamsTest, AnotherPingFromTheSamePortOnlyCounts)
{
    PingQuietly("127.0.0.2", PORT_A);
    CapturedOutput output;
    Ping("127.0.0.2", PORT_A);
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(Stream(0).m_life.PingCount(), 2U);
    EXPECT_EQ(Count(), 1);
}

TEST_F(StreamsTest, APingFromAnotherPortLogsTheChangeAndRestartsMediaThere)
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

TEST_F(StreamsTest, PingsOfStaticStreamsAreOnlyCounted)
{
    Add("127.0.0.2");
    CapturedOutput output;
    Ping("127.0.0.2", PORT_A);
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(Stream(0).m_life.PingCount(), 1U);
    EXPECT_EQ(Stream(0).DestinationPortNet(), htons(m_pingLease.Port()));
}

TEST_F(StreamsTest, APingFromLoopbackMakesAStaticStreamWithoutAMediaStart)
{
    CapturedOutput output;
    Ping("127.0.0.1", PORT_A);
    EXPECT_EQ(output.StampedErr(), "<time> Process Ping: Added 127.0.0.1 stream ID:0x00000000\n");
    EXPECT_TRUE(Stream(0).m_life.IsStatic());
    EXPECT_TRUE(Stream(0).m_bIsAlive);
    EXPECT_EQ(Stream(0).m_life.PingCount(), 1U);
    EXPECT_EQ(Stream(0).DestinationPortNet(), htons(m_pingLease.Port()));
}

TEST_F(StreamsTest, APingWithAKnownIDActsFromAnyAddressAndOnlyThePortFollows)
{
    PingQuietly("127.0.0.2", PORT_A, 7);
    PingQuietly("127.0.0.3", PORT_B, 7);
    ASSERT_EQ(Count(), 1);
    EXPECT_STREQ(Stream(0).HostText(), "127.0.0.2");
    EXPECT_EQ(Stream(0).DestinationPortNet(), PORT_B);
}

TEST_F(StreamsTest, APingWithAnUnknownIDMatchesAConfiguredAddressFirst)
{
    Add("127.0.0.2");
    PingQuietly("127.0.0.2", PORT_A, 7);
    ASSERT_EQ(Count(), 1);
    EXPECT_EQ(Stream(0).m_life.PingCount(), 1U);
    PingQuietly("127.0.0.3", PORT_A, 7);
    ASSERT_EQ(Count(), 2);
    EXPECT_EQ(Stream(1).StreamId(), 7U);
}

TEST_F(StreamsTest, TwoReceiversBehindOneAddressAreToldApartByTheirIDs)
{
    PingQuietly("127.0.0.2", PORT_A, 7);
    PingQuietly("127.0.0.2", PORT_B, 8);
    PingQuietly("127.0.0.2", PORT_B, 0);
    EXPECT_EQ(Count(), 3);
}

TEST_F(StreamsTest, AnyDatagramEvenAnEmptyOneMakesAStream)
{
    const CapturedOutput output;
    Ping("127.0.0.2", PORT_A, 0, {});
    Ping("127.0.0.3", PORT_A, 0, { 0xDE, 0xAD, 0xBE }); // too short for a stop message
    EXPECT_EQ(List(), "127.0.0.2,127.0.0.3");
}

TEST_F(StreamsTest, AStopMessageFromAnUnknownReceiverMakesNothing)
{
    CapturedOutput output;
    Ping("127.0.0.2", PORT_A, 0, STOP);
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(Count(), 0);
}

TEST_F(StreamsTest, AStopMessageInEitherByteOrderRemovesTheStream)
{
    for (const Bytes& stop : { Bytes { 0xDE, 0xAD, 0xBE, 0xEF }, Bytes { 0xEF, 0xBE, 0xAD, 0xDE }, STOP }) {
        PingQuietly("127.0.0.2", PORT_A);
        ASSERT_EQ(Count(), 1);
        CapturedOutput output;
        Ping("127.0.0.2", PORT_B, 0, stop);
        EXPECT_EQ(output.StampedErr(), "<time> Stream stopped for 127.0.0.2 ID:0x00000000\n");
        EXPECT_EQ(Count(), 0);
    }
}

TEST_F(StreamsTest, AStopMessageRemovesAConfiguredStreamToo)
{
    Add("127.0.0.2");
    CapturedOutput output;
    Ping("127.0.0.2", PORT_A, 0, STOP);
    EXPECT_EQ(output.StampedErr(), "<time> Stream stopped for 127.0.0.2 ID:0x00000000\n");
    EXPECT_EQ(Count(), 0);
}

TEST_F(StreamsTest, TheFiftyFirstStreamIsRefused)
{
    for (uint32_t id = 1; id <= 50; ++id)
        PingQuietly("127.0.0.2", PORT_A, id);
    EXPECT_EQ(Count(), 50);
    CapturedOutput output;
    Ping("127.0.0.2", PORT_A, 0x1234ABCD);
    EXPECT_EQ(m_replicator->AddStream("127.0.0.3", 0), 0);
    EXPECT_EQ(output.StampedErr(),
        "<time> Stream not added, no more available streams, ID:0x1234abcd\n"
        "<time> Stream not added, no more available streams, ID:0x00000000\n");
    EXPECT_EQ(Count(), 50);
}

// Requests: what reaches the engine.

TEST_F(StreamsTest, ARequestGoesToTheEngineOfItsStream)
{
    Add("127.0.0.2");
    Add("127.0.0.3");
    RecordingEngine& first = ReplaceEngine(Stream(0));
    RecordingEngine& second = ReplaceEngine(Stream(1));
    HandleRequest("127.0.0.3", 0, { 1, 2, 3 });
    EXPECT_TRUE(first.m_processed.empty());
    EXPECT_EQ(second.m_processed, (std::vector<Bytes> { { 1, 2, 3 } }));
}

TEST_F(StreamsTest, TheTagIsStrippedWhenItsIDIsNotZero)
{
    PingQuietly("127.0.0.2", PORT_A, 7);
    RecordingEngine& engine = ReplaceEngine(Stream(0));
    HandleRequest("127.0.0.9", 7, Tagged(7, { 1, 2, 3 }));
    HandleRequest("127.0.0.9", 7, Tagged(7, {}));
    EXPECT_EQ(engine.m_processed, (std::vector<Bytes> { { 1, 2, 3 }, {} }));
}

TEST_F(StreamsTest, ATagWithIDZeroIsNotStripped)
{
    Add("127.0.0.2");
    RecordingEngine& engine = ReplaceEngine(Stream(0));
    HandleRequest("127.0.0.2", 0, Tagged(0, { 1, 2, 3 }));
    EXPECT_EQ(engine.m_processed, (std::vector<Bytes> { Tagged(0, { 1, 2, 3 }) }));
}

TEST_F(StreamsTest, ATaggedRequestWithAnUnknownIDMayMatchAConfiguredAddressAndIsStripped)
{
    Add("127.0.0.2");
    RecordingEngine& engine = ReplaceEngine(Stream(0));
    HandleRequest("127.0.0.2", 99, Tagged(99, { 1, 2, 3 }));
    EXPECT_EQ(engine.m_processed, (std::vector<Bytes> { { 1, 2, 3 } }));
}

TEST_F(StreamsTest, RequestsForUnknownStreamsAreIgnoredSilently)
{
    PingQuietly("127.0.0.2", PORT_A, 7);
    RecordingEngine& engine = ReplaceEngine(Stream(0));
    CapturedOutput output;
    HandleRequest("127.0.0.2", 0, { 1, 2, 3 });
    HandleRequest("127.0.0.2", 8, Tagged(8, { 1, 2, 3 }));
    EXPECT_EQ(output.Err(), "");
    EXPECT_TRUE(engine.m_processed.empty());
    EXPECT_EQ(Count(), 1);
}

// The listener routes by its mode, with the ID of the tag.

TEST_F(StreamsTest, APingListenerTakesEveryDatagramAsPingAndReadsTheTag)
{
    const CapturedOutput output;
    bool ok = true;
    MySocketListener listener(*m_replicator, MySocketListener::Mode::Pings, SharedSocket(), 1, ok, 1);
    OwnedPacket tagged(Tagged(0x11223344, {}));
    OwnedPacket swapped(Concat({ Tag(0xCEFABEBA, 0x55), { 1 } }));
    OwnedPacket tooShort(Bytes { 0xBA, 0xBE, 0xFA, 0xCE, 1, 2, 3 });
    EXPECT_EQ(listener.OnPacket(tagged.Get(), Net("127.0.0.2"), PORT_A), 1);
    EXPECT_EQ(listener.OnPacket(swapped.Get(), Net("127.0.0.2"), PORT_A), 1);
    EXPECT_EQ(listener.OnPacket(tooShort.Get(), Net("127.0.0.2"), PORT_A), 1);
    ASSERT_EQ(Count(), 3);
    EXPECT_EQ(Stream(0).StreamId(), 0x11223344U);
    EXPECT_EQ(Stream(1).StreamId(), 0x55U);
    EXPECT_EQ(Stream(2).StreamId(), 0U);
    OwnedPacket stop(Concat({ Tag(STREAM_LEAVE_MAGIC, 0x11223344) }));
    EXPECT_EQ(listener.OnPacket(stop.Get(), Net("127.0.0.9"), PORT_A), 1);
    ASSERT_EQ(Count(), 2);
    EXPECT_EQ(Stream(0).StreamId(), 0U) << "the last stream has moved into the place of the first";
}

TEST_F(StreamsTest, ARequestListenerHandsDatagramsToTheEngineAndMakesNoStreams)
{
    PingQuietly("127.0.0.2", PORT_A, 7);
    RecordingEngine& engine = ReplaceEngine(Stream(0));
    bool ok = true;
    MySocketListener listener(*m_replicator, MySocketListener::Mode::Requests, SharedSocket(), 1, ok, 1);
    OwnedPacket request(Tagged(7, { 1, 2 }));
    OwnedPacket unknown(Bytes { 1, 2 });
    EXPECT_EQ(listener.OnPacket(request.Get(), Net("127.0.0.2"), PORT_A), 1);
    EXPECT_EQ(listener.OnPacket(unknown.Get(), Net("127.0.0.3"), PORT_A), 1);
    EXPECT_EQ(engine.m_processed, (std::vector<Bytes> { { 1, 2 } }));
    EXPECT_EQ(Count(), 1);
}

// Configured streams.

TEST_F(StreamsTest, AddingAnAddressThatIsAStreamReturns1AndAddsNothing)
{
    Add("127.0.0.2");
    CapturedOutput output;
    EXPECT_EQ(m_replicator->AddStream("127.0.0.2", 0), 1);
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(Count(), 1);
}

TEST_F(StreamsTest, AddingTheAddressOfAReceiverWithAnIDMakesASecondStream)
{
    PingQuietly("127.0.0.2", PORT_A, 7);
    Add("127.0.0.2");
    EXPECT_EQ(Count(), 2);
}

TEST_F(StreamsTest, AddStreamMakesALivingStaticStreamAndSaysSo)
{
    CapturedOutput output;
    EXPECT_EQ(m_replicator->AddStream("127.0.0.2", 0), 1);
    EXPECT_EQ(output.StampedErr(), "<time> AddStream: Added 127.0.0.2 stream ID:0x00000000\n");
    EXPECT_TRUE(Stream(0).m_bIsAlive);
    EXPECT_TRUE(Stream(0).m_life.IsStatic());
    EXPECT_TRUE(Stream(0).m_life.HasStarted());
    ArqSendStats stats {};
    EXPECT_EQ(m_replicator->GetStreamStats(&stats, 0), 1);
    EXPECT_EQ(stats.arqRetries, 2U);
    EXPECT_EQ(stats.arqIntervalMs, 200U);
}

TEST_F(StreamsTest, UnknownHostsAreReportedAndNeitherAddedNorDeleted)
{
    CapturedOutput output;
    EXPECT_EQ(m_replicator->AddStream("256.1.1.1", 0), 0);
    EXPECT_EQ(m_replicator->DeleteStream("1.2.3.4.5"), 0);
    EXPECT_EQ(m_replicator->AddStream(nullptr, 0), 0);
    EXPECT_EQ(m_replicator->DeleteStream(nullptr), 0);
    EXPECT_EQ(output.Err(),
        "unknown host '256.1.1.1'\nunknown host '1.2.3.4.5'\nunknown host ''\nunknown host ''\n");
    EXPECT_EQ(Count(), 0);
}

// Each allocation fails in turn. A stream without a socket is kept, one without an engine is not.
TEST_F(StreamsTest, AStreamThatCannotBeMadeWholeIsNotAdded)
{
    constexpr int MORE_THAN_ENOUGH = 30;
    const CapturedOutput output;
    int refused = 0;
    bool isFired = true;
    for (int n = 1; isFired && n < MORE_THAN_ENOUGH; ++n) {
        int result = 0;
        {
            const FailNthAllocation failing(n);
            result = m_replicator->AddStream("127.0.0.2", 0);
            isFired = failing.Fired();
        }
        EXPECT_EQ(Count(), result);
        refused += result == 0 ? 1 : 0;
        if (result == 1)
            Ping("127.0.0.2", PORT_A, 0, STOP);
        EXPECT_EQ(Count(), 0);
    }
    EXPECT_FALSE(isFired);
    EXPECT_GE(refused, 3) << "the stream, its engine and the engine's ring";
}

TEST_F(StreamsTest, DeletingAStreamSendsFiveStopMessages20MsApartAndLogsItsEndOnce)
{
    Receiver receiver("127.0.0.2", m_pingLease.Port());
    Add("127.0.0.2");
    const uint64_t sent = m_replicator->TxStats().m_nTxPackets;
    CapturedOutput output;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(m_replicator->DeleteStream("127.0.0.2"), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(100));
    EXPECT_EQ(output.StampedErr(), "<time> Stream stopped for 127.0.0.2 ID:0x00000000\n");
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(receiver.Next(), STOP);
    EXPECT_FALSE(receiver.HasDatagram());
    EXPECT_EQ(Count(), 0);
    EXPECT_EQ(m_replicator->TxStats().m_nTxPackets, sent);
}

TEST_F(StreamsTest, DeletingFindsStreamsWithoutIDOnly)
{
    PingQuietly("127.0.0.2", PORT_A, 7);
    CapturedOutput output;
    EXPECT_EQ(m_replicator->DeleteStream("127.0.0.2"), 0);
    EXPECT_EQ(m_replicator->DeleteStream("127.0.0.3"), 0);
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(Count(), 1);
    PingQuietly("127.0.0.3", PORT_A);
    const CapturedOutput more;
    EXPECT_EQ(m_replicator->DeleteStream("127.0.0.3"), 1);
    EXPECT_EQ(Count(), 1);
}

TEST_F(StreamsTest, RemovingEntry0OfThreeMovesEntry2IntoItsPlace)
{
    Add("127.0.0.2");
    Add("127.0.0.3");
    Add("127.0.0.4");
    EXPECT_EQ(m_replicator->DeleteStream("127.0.0.2"), 1);
    EXPECT_EQ(List(), "127.0.0.4,127.0.0.3");
}

// The list.

TEST_F(StreamsTest, TheListHasTheAddressesInTableOrderBehindEachOther)
{
    Add("127.0.0.2");
    Add("127.0.0.33");
    PingQuietly("127.0.0.4", PORT_A, 7);
    EXPECT_EQ(List(), "127.0.0.2,127.0.0.33,127.0.0.4");
}

TEST_F(StreamsTest, WithoutStreamsTheListWritesNothingAtAll)
{
    char text[] = "as it was";
    EXPECT_EQ(m_replicator->ListStreams(text, sizeof(text)), 1);
    EXPECT_STREQ(text, "as it was");
}

TEST_F(StreamsTest, TheListStaysWithinItsRoomAndHasWholeAddressesOnly)
{
    Add("127.0.0.2");
    Add("127.0.0.3");
    constexpr size_t BOTH = sizeof("127.0.0.2,127.0.0.3");
    for (const auto& [room, expected] : { std::pair<size_t, const char*> { BOTH, "127.0.0.2,127.0.0.3" },
             { BOTH - 1, "127.0.0.2" }, { sizeof("127.0.0.2"), "127.0.0.2" } }) {
        std::vector<char> buffer(room + 1, '#');
        EXPECT_EQ(m_replicator->ListStreams(buffer.data(), room), 1);
        EXPECT_STREQ(buffer.data(), expected);
        EXPECT_EQ(buffer[room], '#');
    }
    char tooSmall[] = "127.0.0."; // one short
    EXPECT_EQ(m_replicator->ListStreams(tooSmall, sizeof(tooSmall)), 1);
    EXPECT_STREQ(tooSmall, "127.0.0.");
    EXPECT_EQ(m_replicator->ListStreams(tooSmall, 0), 1);
}

// Statistics of one stream.

TEST_F(StreamsTest, StatisticsAreThoseOfTheStreamWithThatIndex)
{
    Add("127.0.0.2");
    Add("127.0.0.3");
    ReplaceEngine(Stream(0)).m_stats.retransmitted = 10;
    ReplaceEngine(Stream(1)).m_stats.retransmitted = 11;
    ArqSendStats stats {};
    EXPECT_EQ(m_replicator->GetStreamStats(&stats, 1), 1);
    EXPECT_EQ(stats.retransmitted, 11U);
    m_replicator->ClearStreamStats(1);
    EXPECT_EQ(m_replicator->GetStreamStats(&stats, 1), 1);
    EXPECT_EQ(stats.retransmitted, 0U);
    EXPECT_EQ(m_replicator->GetStreamStats(&stats, 0), 1);
    EXPECT_EQ(stats.retransmitted, 10U);
}

TEST_F(StreamsTest, StatisticsOfAnIndexThatIsNoStreamAreRefused)
{
    Add("127.0.0.2");
    ReplaceEngine(Stream(0)).m_stats.retransmitted = 10;
    ArqSendStats stats {};
    stats.retransmitted = 77;
    for (const int32_t index : { -1, 1, 50, 51, 2147483647, -2147483647 }) {
        EXPECT_EQ(m_replicator->GetStreamStats(&stats, index), 0) << index;
        m_replicator->ClearStreamStats(index);
    }
    EXPECT_EQ(stats.retransmitted, 77U);
    EXPECT_EQ(m_replicator->GetStreamStats(&stats, 0), 1);
    EXPECT_EQ(stats.retransmitted, 10U);
}

} // namespace
