// A reader that stands in a blocked send holds up nobody. One thread is enough to show it: whatever waited for
// the view that this thread holds would never return.
#include "replicator/stream_keeper.h"

#include <fcntl.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/stream_keeper_fixture.h"

namespace {

using namespace test_support;

// Descriptors that are open; no test has more than that.
int OpenDescriptors()
{
    constexpr int HIGHEST = 1024;
    int count = 0;
    for (int fd = 0; fd < HIGHEST; ++fd)
        count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    return count;
}

class StreamKeeperViewTest : public StreamKeeperTest {
protected:
    static std::string Addresses(const StreamTable::View& view)
    {
        std::string text;
        view.ForEach([&](const MyArqSendCB& stream) { text += stream.HostText() + std::string(" "); });
        return text;
    }
};

TEST_F(StreamKeeperViewTest, NothingThatComesOrGoesWaitsForAReader)
{
    Add("127.0.0.2");
    Add("127.0.0.3");
    PingQuietly("127.0.0.4", PORT_A, 4);
    PingQuietly("127.0.0.5", PORT_A, 5);
    const CapturedOutput output;
    const StreamTable::View held(m_keeper.Table());
    Ping("127.0.0.6", PORT_A); // joins
    Ping("127.0.0.5", PORT_B, 5); // moves
    EXPECT_EQ(m_keeper.AddStream("127.0.0.7", 0), 1);
    EXPECT_EQ(List(), "127.0.0.2,127.0.0.3,127.0.0.4,127.0.0.5,127.0.0.6,127.0.0.7");
    EXPECT_EQ(m_keeper.DeleteStream("127.0.0.3"), 1);
    Leave("127.0.0.4", 4);
    m_keeper.VisitPlace(3, 0);
    m_keeper.VisitPlace(3, 5000); // 127.0.0.5 has been silent
    m_keeper.DestroyRemoved();
    EXPECT_EQ(List(), "127.0.0.2,127.0.0.7,127.0.0.6");
    EXPECT_EQ(Addresses(held), "127.0.0.2 127.0.0.3 127.0.0.4 127.0.0.5 ") << "its own state of the table";
}

TEST_F(StreamKeeperViewTest, AReaderThatStillMeetsADeletedStreamSendsItNothingAndSaysNothing)
{
    const Receiver receiver("127.0.0.2", m_lease.Port());
    Add("127.0.0.2");
    const StreamTable::View held(m_keeper.Table());
    OwnedPacket packet(RtpPacket(1));
    CapturedOutput output;
    EXPECT_EQ(held.At(0).SendData(packet.Get()), 1);
    EXPECT_EQ(m_keeper.DeleteStream("127.0.0.2"), 1);
    EXPECT_EQ(held.At(0).SendData(packet.Get()), 1);
    EXPECT_EQ(output.StampedErr(), "<time> Stream stopped for 127.0.0.2 ID:0x00000000\n");
}

TEST_F(StreamKeeperViewTest, WhatHasLeftIsFreedWhenTheReaderHasLeft)
{
    constexpr int STREAMS = 10;
    const int before = OpenDescriptors();
    for (uint32_t id = 1; id <= STREAMS; ++id)
        PingQuietly("127.0.0.2", PORT_A, id);
    {
        const StreamTable::View held(m_keeper.Table());
        for (uint32_t id = 1; id <= STREAMS; ++id) {
            LeaveQuietly("127.0.0.2", id);
            m_keeper.DestroyRemoved(); // the first one's period begins before the others have left
        }
    }
    EXPECT_EQ(m_keeper.Table().Waiting(), STREAMS);
    EXPECT_EQ(OpenDescriptors(), before + STREAMS);
    m_keeper.DestroyRemoved(); // the first one's period is over
    m_keeper.DestroyRemoved();
    EXPECT_EQ(m_keeper.Table().Waiting(), 0);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(StreamKeeperViewTest, WhileTooManyWaitToBeDestroyedNobodyJoinsAndEverybodyCanLeave)
{
    constexpr char REFUSED[] = "Stream not added, too many streams wait to be destroyed, ID:0x";
    const int before = OpenDescriptors();
    Add("127.0.0.2");
    {
        const StreamTable::View held(m_keeper.Table());
        uint32_t id = 1;
        for (; m_keeper.Table().Waiting() < StreamTable::MAX_WAITING - 1; ++id) {
            PingQuietly("127.0.0.3", PORT_A, id);
            ASSERT_TRUE(Has(id));
            LeaveQuietly("127.0.0.3", id);
            m_keeper.DestroyRemoved();
        }
        CapturedOutput output;
        Ping("127.0.0.3", PORT_A, 0x1234ABCD);
        EXPECT_EQ(m_keeper.AddStream("127.0.0.4", 0), 0);
        EXPECT_EQ(output.StampedErr(),
            "<time> " + std::string(REFUSED) + "1234abcd\n<time> " + std::string(REFUSED) + "00000000\n");
        EXPECT_EQ(List(), "127.0.0.2");
        LeaveQuietly("127.0.0.2");
        EXPECT_EQ(Count(), 0);
    }
    m_keeper.DestroyRemoved();
    m_keeper.DestroyRemoved();
    EXPECT_EQ(OpenDescriptors(), before);
    Add("127.0.0.4");
    EXPECT_EQ(List(), "127.0.0.4");
}

// In a full table, too many that wait show only when a place has become free.
TEST_F(StreamKeeperViewTest, AFullTableIsWhatARefusedStreamIsToldWhenTooManyWaitAsWell)
{
    const StreamTable::View held(m_keeper.Table());
    uint32_t id = 1;
    for (; m_keeper.Table().Waiting() < StreamTable::MAX_WAITING - StreamTable::MAX_STREAMS; ++id) {
        PingQuietly("127.0.0.3", PORT_A, id);
        LeaveQuietly("127.0.0.3", id);
    }
    for (; Count() < StreamTable::MAX_STREAMS; ++id) {
        PingQuietly("127.0.0.3", PORT_A, id);
        ASSERT_TRUE(Has(id));
    }
    CapturedOutput output;
    Ping("127.0.0.3", PORT_A, 0x1234ABCD);
    EXPECT_EQ(m_keeper.AddStream("127.0.0.4", 0), 0);
    EXPECT_EQ(output.StampedErr(),
        "<time> Stream not added, no more available streams, ID:0x1234abcd\n"
        "<time> Stream not added, no more available streams, ID:0x00000000\n");
    LeaveQuietly("127.0.0.3", id - 1);
    CapturedOutput next;
    Ping("127.0.0.3", PORT_A, 0x1234ABCD);
    EXPECT_EQ(
        next.StampedErr(), "<time> Stream not added, too many streams wait to be destroyed, ID:0x1234abcd\n");
}

} // namespace
