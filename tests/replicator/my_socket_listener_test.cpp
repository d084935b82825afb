// What arrives on the two ports is taken by the listener's mode, with the stream ID of its tag.
#include "replicator/my_socket_listener.h"

#include <vector>

#include <gtest/gtest.h>

#include "support/replicator_fixture.h"

namespace {

using namespace test_support;

using Mode = MySocketListener::Mode;

const Bytes STOP_DATAGRAM { 0xDE, 0xAD, 0xBE, 0xEF, 0xBA, 0xBE, 0xFA, 0xCE };

// The replicator's own threads are stopped; the listeners here have no socket.
class MySocketListenerTest : public ReplicatorTest {
protected:
    MySocketListenerTest() { (void)BuildStopped(); }

    void Hand(Mode mode, const char* address, const Bytes& data)
    {
        bool ok = true;
        MySocketListener listener(*m_replicator, mode, SharedSocket(), 1, ok, 1);
        OwnedPacket packet(data);
        EXPECT_EQ(listener.OnPacket(packet.Get(), Net(address), htons(9)), 1);
    }
    int32_t Count() const { return CountOfStreams(*m_replicator); }

    CapturedOutput m_output;
};

TEST_F(MySocketListenerTest, APingListenerTakesEveryDatagramAsPingAndReadsTheTag)
{
    Hand(Mode::Pings, "127.0.0.2", Tagged(0x11223344, {}));
    Hand(Mode::Pings, "127.0.0.2", Concat({ Tag(0xCEFABEBA, 0x55), { 1 } }));
    Hand(Mode::Pings, "127.0.0.2", { 0xBA, 0xBE, 0xFA, 0xCE, 1, 2, 3 }); // too short for a tag
    ASSERT_EQ(Count(), 3);
    EXPECT_EQ(Stream(0).StreamId(), 0x11223344U);
    EXPECT_EQ(Stream(1).StreamId(), 0x55U);
    EXPECT_EQ(Stream(2).StreamId(), 0U);
    Hand(Mode::Pings, "127.0.0.9", Tag(STREAM_LEAVE_MAGIC, 0x11223344));
    ASSERT_EQ(Count(), 2);
    EXPECT_EQ(Stream(0).StreamId(), 0U) << "the last stream has moved into the place of the first";
}

TEST_F(MySocketListenerTest, AnyDatagramEvenAnEmptyOneMakesAStream)
{
    Hand(Mode::Pings, "127.0.0.2", {});
    Hand(Mode::Pings, "127.0.0.3", { 0xDE, 0xAD, 0xBE }); // too short for a stop message
    EXPECT_EQ(List(), "127.0.0.2,127.0.0.3");
}

TEST_F(MySocketListenerTest, AStopMessageInEitherByteOrderRemovesTheStream)
{
    for (const Bytes& stop :
        { Bytes { 0xDE, 0xAD, 0xBE, 0xEF }, Bytes { 0xEF, 0xBE, 0xAD, 0xDE }, STOP_DATAGRAM }) {
        Hand(Mode::Pings, "127.0.0.2", { 'p' });
        ASSERT_EQ(Count(), 1);
        Hand(Mode::Pings, "127.0.0.2", stop);
        EXPECT_EQ(Count(), 0);
    }
    EXPECT_EQ(CountOf(m_output.Err(), "Stream stopped for 127.0.0.2 ID:0x00000000\n"), 3U);
}

TEST_F(MySocketListenerTest, ARequestListenerHandsDatagramsToTheEngineAndMakesNoStreams)
{
    Hand(Mode::Pings, "127.0.0.2", Tagged(7, {}));
    RecordingEngine& engine = ReplaceEngine(Stream(0));
    Hand(Mode::Requests, "127.0.0.2", Tagged(7, { 1, 2 }));
    Hand(Mode::Requests, "127.0.0.3", { 1, 2 });
    EXPECT_EQ(engine.m_processed, (std::vector<Bytes> { { 1, 2 } }));
    EXPECT_EQ(Count(), 1);
}

TEST_F(MySocketListenerTest, AStopMessageOnTheRequestPortEndsNothing)
{
    Hand(Mode::Pings, "127.0.0.2", { 'p' });
    (void)ReplaceEngine(Stream(0));
    Hand(Mode::Requests, "127.0.0.2", STOP_DATAGRAM);
    EXPECT_EQ(Count(), 1);
}

} // namespace
