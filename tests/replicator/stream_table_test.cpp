#include "replicator/stream_table.h"

#include <fcntl.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "replicator/my_arq_send_cb.h"
#include "support/loopback.h"

namespace {

using test_support::Net;

using Streams = std::vector<MyArqSendCB*>;

class StreamTableTest : public testing::Test {
protected:
    MyArqSendCB* Append(const char* address, uint32_t streamId = 0)
    {
        const StreamTable::Lock lock(m_table);
        auto stream = std::make_unique<MyArqSendCB>(m_stats, Net(address), uint16_t { 9 }, streamId);
        MyArqSendCB* added = stream.get();
        m_table.Append(std::move(stream));
        return added;
    }

    void Remove(int32_t index)
    {
        const StreamTable::Lock lock(m_table);
        m_table.Remove(index);
    }

    bool HasPlace()
    {
        const StreamTable::Lock lock(m_table);
        return m_table.HasPlace();
    }

    bool HasFreeState()
    {
        const StreamTable::Lock lock(m_table);
        return m_table.HasFreeState();
    }

    static Streams AllOf(const StreamTable::View& view)
    {
        Streams streams;
        view.ForEach([&](MyArqSendCB& stream) { streams.push_back(&stream); });
        return streams;
    }
    Streams All() const
    {
        const StreamTable::View view(m_table);
        return AllOf(view);
    }

    // A stream with a socket, which tells when the stream is destroyed.
    int AppendWithSocket()
    {
        MyArqSendCB* stream = Append("127.0.0.2");
        stream->OpenSocket();
        return stream->SocketNumber(0);
    }
    static bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

    TransmitStats m_stats;
    StreamTable m_table;
};

TEST_F(StreamTableTest, StreamsAreMetInTheOrderTheyWereAppended)
{
    EXPECT_EQ(All(), Streams {});
    MyArqSendCB* a = Append("127.0.0.2");
    MyArqSendCB* b = Append("127.0.0.3");
    MyArqSendCB* c = Append("127.0.0.4");
    EXPECT_EQ(All(), (Streams { a, b, c }));
    const StreamTable::View view(m_table);
    EXPECT_EQ(view.Count(), 3);
    EXPECT_EQ(&view.At(1), b);
}

TEST_F(StreamTableTest, WhoHoldsTheLockMeetsTheSame)
{
    MyArqSendCB* a = Append("127.0.0.2");
    MyArqSendCB* b = Append("127.0.0.3");
    const StreamTable::Lock lock(m_table);
    const StreamEntries entries = m_table.Current();
    EXPECT_EQ(entries.Count(), 2);
    EXPECT_EQ(&entries.At(0), a);
    EXPECT_EQ(entries.Find(Net("127.0.0.3"), 0), b);
}

TEST_F(StreamTableTest, RemovingEntry0OfThreeMovesEntry2IntoItsPlace)
{
    (void)Append("127.0.0.2");
    MyArqSendCB* b = Append("127.0.0.3");
    MyArqSendCB* c = Append("127.0.0.4");
    Remove(0);
    EXPECT_EQ(All(), (Streams { c, b }));
}

TEST_F(StreamTableTest, RemovingTheLastEntryLeavesTheOthersInPlace)
{
    MyArqSendCB* a = Append("127.0.0.2");
    MyArqSendCB* b = Append("127.0.0.3");
    (void)Append("127.0.0.4");
    Remove(2);
    EXPECT_EQ(All(), (Streams { a, b }));
    Remove(1);
    Remove(0);
    EXPECT_EQ(All(), Streams {});
}

TEST_F(StreamTableTest, AnEntryCanBeAppendedAfterOneWasRemoved)
{
    MyArqSendCB* a = Append("127.0.0.2");
    (void)Append("127.0.0.3");
    Remove(1);
    MyArqSendCB* c = Append("127.0.0.4");
    EXPECT_EQ(All(), (Streams { a, c }));
}

TEST_F(StreamTableTest, FiftyStreamsHavePlace)
{
    for (uint32_t id = 1; id <= StreamTable::MAX_STREAMS; ++id) {
        EXPECT_TRUE(HasPlace());
        (void)Append("127.0.0.2", id);
    }
    EXPECT_EQ(All().size(), 50U);
    EXPECT_FALSE(HasPlace());
    Remove(7);
    EXPECT_TRUE(HasPlace());
}

TEST_F(StreamTableTest, FindPrefersTheFirstStreamWithTheID)
{
    (void)Append("127.0.0.2");
    MyArqSendCB* b = Append("127.0.0.3", 7);
    (void)Append("127.0.0.4", 7);
    const StreamTable::View view(m_table);
    EXPECT_EQ(view.Find(Net("127.0.0.2"), 7), b);
    EXPECT_EQ(view.Find(Net("127.0.0.99"), 7), b);
}

TEST_F(StreamTableTest, FindFallsBackToTheFirstStreamWithoutIDAtTheAddress)
{
    MyArqSendCB* a = Append("127.0.0.2");
    (void)Append("127.0.0.2");
    const StreamTable::View view(m_table);
    EXPECT_EQ(view.Find(Net("127.0.0.2"), 7), a);
    EXPECT_EQ(view.Find(Net("127.0.0.2"), 0), a);
}

TEST_F(StreamTableTest, AStreamWithAnIDIsNotFoundByItsAddress)
{
    (void)Append("127.0.0.2", 7);
    const StreamTable::View view(m_table);
    EXPECT_EQ(view.Find(Net("127.0.0.2"), 0), nullptr);
    EXPECT_EQ(view.Find(Net("127.0.0.2"), 8), nullptr);
}

TEST_F(StreamTableTest, UnknownAddressesAreNotFound)
{
    EXPECT_EQ(StreamTable::View(m_table).Find(Net("127.0.0.2"), 0), nullptr);
    (void)Append("127.0.0.2");
    EXPECT_EQ(StreamTable::View(m_table).Find(Net("127.0.0.3"), 0), nullptr);
}

TEST_F(StreamTableTest, FindIndexKnowsOnlyStreamsOfTheTable)
{
    (void)Append("127.0.0.2");
    MyArqSendCB* b = Append("127.0.0.3");
    Remove(1);
    MyArqSendCB* c = Append("127.0.0.4");
    const StreamTable::Lock lock(m_table);
    int32_t index = -5;
    EXPECT_FALSE(m_table.Current().FindIndex(nullptr, &index));
    EXPECT_FALSE(m_table.Current().FindIndex(b, &index));
    EXPECT_EQ(index, -5);
    EXPECT_TRUE(m_table.Current().FindIndex(c, &index));
    EXPECT_EQ(index, 1);
}

TEST_F(StreamTableTest, AViewKeepsTheTableAsItWasOnEntering)
{
    MyArqSendCB* a = Append("127.0.0.2");
    MyArqSendCB* b = Append("127.0.0.3");
    MyArqSendCB* c = Append("127.0.0.4");
    const StreamTable::View before(m_table);
    MyArqSendCB* d = Append("127.0.0.5");
    const auto between = std::make_unique<StreamTable::View>(m_table); // a reader has but one view by itself
    Remove(0);
    MyArqSendCB* e = Append("127.0.0.6");
    EXPECT_EQ(AllOf(before), (Streams { a, b, c }));
    EXPECT_EQ(AllOf(*between), (Streams { a, b, c, d }));
    EXPECT_EQ(All(), (Streams { d, b, c, e }));
}

// The third stream moves into the gap behind a walk that stands at the second one.
TEST_F(StreamTableTest, AStreamThatMovesBehindTheWalkIsStillMetExactlyOnce)
{
    (void)Append("127.0.0.2", 1);
    MyArqSendCB* standing = Append("127.0.0.3", 2);
    MyArqSendCB* moving = Append("127.0.0.4", 3);
    int met = 0;
    const StreamTable::View view(m_table);
    view.ForEach([&](MyArqSendCB& stream) {
        if (&stream == standing)
            Remove(0);
        met += &stream == moving ? 1 : 0;
    });
    EXPECT_EQ(met, 1);
    EXPECT_EQ(All(), (Streams { moving, standing })) << "it did move";
}

TEST_F(StreamTableTest, ARemovedStreamLivesUntilTheDestroyerLooks)
{
    const int socket = AppendWithSocket();
    Remove(0);
    EXPECT_TRUE(IsOpen(socket));
    EXPECT_EQ(m_table.Waiting(), 1);
    m_table.DestroyRemoved();
    EXPECT_FALSE(IsOpen(socket));
    EXPECT_EQ(m_table.Waiting(), 0);
}

TEST_F(StreamTableTest, ARemovedStreamLivesAsLongAsAViewFromBefore)
{
    const int socket = AppendWithSocket();
    {
        const StreamTable::View view(m_table);
        Remove(0);
        for (int i = 0; i < 10; ++i)
            m_table.DestroyRemoved();
        EXPECT_TRUE(IsOpen(socket));
    }
    m_table.DestroyRemoved();
    EXPECT_FALSE(IsOpen(socket));
}

TEST_F(StreamTableTest, WhatIsRemovedWhileThePeriodRunsWaitsForTheNext)
{
    const int first = AppendWithSocket();
    const int second = AppendWithSocket();
    auto before = std::make_unique<StreamTable::View>(m_table);
    Remove(0);
    m_table.DestroyRemoved(); // begins the first one's period
    const auto between = std::make_unique<StreamTable::View>(m_table); // a reader has but one view by itself
    Remove(0);
    before.reset();
    m_table.DestroyRemoved();
    EXPECT_FALSE(IsOpen(first));
    EXPECT_TRUE(IsOpen(second)) << "a view from before its removal is still there";
}

TEST_F(StreamTableTest, StreamsComeAndGoFarMoreOftenThanThereAreStates)
{
    for (int i = 0; i < 10 * StreamTable::MAX_WAITING; ++i) {
        ASSERT_TRUE(HasFreeState()) << i;
        (void)Append("127.0.0.2");
        Remove(0);
        m_table.DestroyRemoved();
    }
}

TEST_F(StreamTableTest, NobodyJoinsWhoseRemovalWouldFindNoFreeState)
{
    const StreamTable::View holdsUp(m_table);
    int rounds = 0;
    for (; HasFreeState(); ++rounds) {
        (void)Append("127.0.0.2");
        Remove(0);
        m_table.DestroyRemoved();
    }
    EXPECT_EQ(rounds, StreamTable::MAX_WAITING);
    EXPECT_EQ(m_table.Waiting(), StreamTable::MAX_WAITING);
}

TEST_F(StreamTableTest, HoweverManyWaitEveryStreamOfTheTableCanBeRemoved)
{
    {
        const StreamTable::View holdsUp(m_table);
        for (int joined = 0; HasPlace() && HasFreeState(); ++joined) {
            (void)Append("127.0.0.2");
            if (joined % 4 != 0)
                Remove(0);
        }
        EXPECT_GT(All().size(), 10U);
        EXPECT_TRUE(HasPlace()) << "it is the states that ran short";
        while (!All().empty())
            Remove(0);
        EXPECT_EQ(m_table.Waiting(), StreamTable::MAX_WAITING);
    }
    m_table.DestroyRemoved();
    EXPECT_EQ(m_table.Waiting(), 0);
    EXPECT_TRUE(HasFreeState());
}

TEST(StreamTable, DestroysAllItsStreamsThoseTooThatWait)
{
    TransmitStats stats;
    std::vector<int> sockets;
    {
        StreamTable table;
        const StreamTable::Lock lock(table);
        for (int i = 0; i < 4; ++i) {
            auto stream = std::make_unique<MyArqSendCB>(stats, Net("127.0.0.2"), uint16_t { 9 }, 0U);
            stream->OpenSocket();
            sockets.push_back(stream->SocketNumber(0));
            table.Append(std::move(stream));
        }
        const StreamTable::View holdsUp(table);
        table.Remove(0);
        table.DestroyRemoved(); // one waits for its period to end, one for its period to begin
        table.Remove(0);
    }
    for (const int fd : sockets)
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

// Four streams stay while others come and go before, between and behind them. The readers do what the packet
// path does; the sanitizers would report a stream that is used after it was destroyed.
TEST_F(StreamTableTest, AReaderMeetsEveryStreamThatStaysExactlyOnceWhileOthersAreRemoved)
{
    constexpr uint32_t FIRST_TO_STAY = 1000;
    constexpr int STAYING = 4;
    (void)Append("127.0.0.2", 1);
    for (uint32_t i = 0; i < STAYING; ++i)
        (void)Append("127.0.0.3", FIRST_TO_STAY + i);
    std::atomic<bool> isOver { false };
    std::atomic<int> missed { 0 };
    std::atomic<int> repeated { 0 };
    std::atomic<int> passes { 0 };
    const auto read = [&] {
        while (!isOver) {
            int met[STAYING] {};
            {
                const StreamTable::View view(m_table);
                view.ForEach([&](const MyArqSendCB& stream) {
                    if (stream.StreamId() >= FIRST_TO_STAY)
                        ++met[stream.StreamId() - FIRST_TO_STAY];
                });
            }
            for (const int count : met) {
                missed += count == 0 ? 1 : 0;
                repeated += count > 1 ? 1 : 0;
            }
            ++passes;
        }
    };
    std::thread reader1(read);
    std::thread reader2(read);
    std::thread destroyer([&] {
        while (!isOver) {
            m_table.DestroyRemoved();
            std::this_thread::yield();
        }
    });
    const auto removeFirstLeaving = [&] {
        const StreamTable::Lock lock(m_table);
        const StreamEntries entries = m_table.Current();
        int32_t index = 0;
        while (entries.At(index).StreamId() >= FIRST_TO_STAY)
            ++index;
        m_table.Remove(index);
    };
    constexpr int ENOUGH_PASSES = 10; // a busy machine may not let the readers run for a while
    for (uint32_t i = 0; i < 5000 || passes < ENOUGH_PASSES; ++i) {
        while (!HasFreeState())
            std::this_thread::yield();
        (void)Append("127.0.0.4", 1 + i % 100);
        removeFirstLeaving();
    }
    isOver = true;
    reader1.join();
    reader2.join();
    destroyer.join();
    EXPECT_EQ(missed, 0) << "of " << passes << " passes";
    EXPECT_EQ(repeated, 0) << "of " << passes << " passes";
}

} // namespace
