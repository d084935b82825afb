#include "replicator/stream_table.h"

#include <fcntl.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "replicator/loopback.h"
#include "replicator/my_arq_send_cb.h"

namespace {

using test_support::Net;

class StreamTableTest : public testing::Test {
protected:
    MyArqSendCB* Append(const char* address, uint32_t streamId = 0)
    {
        auto stream = std::make_unique<MyArqSendCB>(m_stats, Net(address), uint16_t { 9 }, streamId);
        MyArqSendCB* added = stream.get();
        m_table.Append(std::move(stream));
        return added;
    }

    std::vector<MyArqSendCB*> All() const
    {
        std::vector<MyArqSendCB*> streams;
        m_table.ForEach([&](MyArqSendCB& stream) { streams.push_back(&stream); });
        return streams;
    }

    TransmitStats m_stats;
    StreamTable m_table;
};

using Streams = std::vector<MyArqSendCB*>;

TEST_F(StreamTableTest, StreamsAreMetInTheOrderTheyWereAppended)
{
    EXPECT_EQ(All(), Streams {});
    MyArqSendCB* a = Append("127.0.0.2");
    MyArqSendCB* b = Append("127.0.0.3");
    MyArqSendCB* c = Append("127.0.0.4");
    EXPECT_EQ(m_table.Count(), 3);
    EXPECT_EQ(All(), (Streams { a, b, c }));
    EXPECT_EQ(m_table.At(1), b);
}

TEST_F(StreamTableTest, TakingEntry0OfThreeMovesEntry2IntoItsPlace)
{
    MyArqSendCB* a = Append("127.0.0.2");
    MyArqSendCB* b = Append("127.0.0.3");
    MyArqSendCB* c = Append("127.0.0.4");
    const std::unique_ptr<MyArqSendCB> taken = m_table.Take(0);
    EXPECT_EQ(taken.get(), a);
    EXPECT_EQ(m_table.Count(), 2);
    EXPECT_EQ(All(), (Streams { c, b }));
}

TEST_F(StreamTableTest, TakingTheLastEntryLeavesTheOthersInPlace)
{
    MyArqSendCB* a = Append("127.0.0.2");
    MyArqSendCB* b = Append("127.0.0.3");
    MyArqSendCB* c = Append("127.0.0.4");
    EXPECT_EQ(m_table.Take(2).get(), c);
    EXPECT_EQ(All(), (Streams { a, b }));
    EXPECT_EQ(m_table.Take(1).get(), b);
    EXPECT_EQ(m_table.Take(0).get(), a);
    EXPECT_EQ(m_table.Count(), 0);
    EXPECT_EQ(All(), Streams {});
}

TEST_F(StreamTableTest, AnEntryCanBeAppendedAfterOneWasTaken)
{
    MyArqSendCB* a = Append("127.0.0.2");
    (void)Append("127.0.0.3");
    (void)m_table.Take(1);
    MyArqSendCB* c = Append("127.0.0.4");
    EXPECT_EQ(All(), (Streams { a, c }));
}

TEST_F(StreamTableTest, FiftyStreamsFit)
{
    for (int i = 0; i < StreamTable::MAX_STREAMS; ++i)
        (void)Append("127.0.0.2", static_cast<uint32_t>(i + 1));
    EXPECT_EQ(All().size(), 50U);
    EXPECT_EQ(m_table.Find(0, 50), m_table.At(49));
}

TEST_F(StreamTableTest, FindPrefersTheFirstStreamWithTheID)
{
    (void)Append("127.0.0.2");
    MyArqSendCB* b = Append("127.0.0.3", 7);
    (void)Append("127.0.0.4", 7);
    EXPECT_EQ(m_table.Find(Net("127.0.0.2"), 7), b);
    EXPECT_EQ(m_table.Find(Net("127.0.0.99"), 7), b);
}

TEST_F(StreamTableTest, FindFallsBackToTheFirstStreamWithoutIDAtTheAddress)
{
    MyArqSendCB* a = Append("127.0.0.2");
    (void)Append("127.0.0.2");
    EXPECT_EQ(m_table.Find(Net("127.0.0.2"), 7), a);
    EXPECT_EQ(m_table.Find(Net("127.0.0.2"), 0), a);
}

TEST_F(StreamTableTest, AStreamWithAnIDIsNotFoundByItsAddress)
{
    (void)Append("127.0.0.2", 7);
    EXPECT_EQ(m_table.Find(Net("127.0.0.2"), 0), nullptr);
    EXPECT_EQ(m_table.Find(Net("127.0.0.2"), 8), nullptr);
}

TEST_F(StreamTableTest, UnknownAddressesAreNotFound)
{
    EXPECT_EQ(m_table.Find(Net("127.0.0.2"), 0), nullptr);
    (void)Append("127.0.0.2");
    EXPECT_EQ(m_table.Find(Net("127.0.0.3"), 0), nullptr);
}

TEST_F(StreamTableTest, IndexOfKnowsOnlyStreamsOfTheTable)
{
    (void)Append("127.0.0.2");
    MyArqSendCB* b = Append("127.0.0.3");
    int32_t index = -5;
    EXPECT_FALSE(m_table.IndexOf(nullptr, &index));
    const std::unique_ptr<MyArqSendCB> taken = m_table.Take(1);
    EXPECT_FALSE(m_table.IndexOf(b, &index));
    EXPECT_EQ(index, -5);
    MyArqSendCB* c = Append("127.0.0.4");
    EXPECT_TRUE(m_table.IndexOf(c, &index));
    EXPECT_EQ(index, 1);
}

TEST_F(StreamTableTest, ClearDestroysEveryStreamOnce)
{
    MyArqSendCB* a = Append("127.0.0.2");
    MyArqSendCB* b = Append("127.0.0.3");
    a->OpenSocket();
    b->OpenSocket();
    const int sockets[] = { a->SocketNumber(0), b->SocketNumber(0) };
    m_table.Clear();
    for (const int fd : sockets)
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(All(), Streams {});
    m_table.Clear();
}

// Four streams stay while others come and go before, between and behind them. The readers do what the packet
// path does; the sanitizers would report a stream that is used after it was destroyed.
TEST_F(StreamTableTest, AReaderMeetsEveryStreamThatStaysExactlyOnceWhileOthersAreTaken)
{
    constexpr uint32_t STAYS = 1000;
    constexpr int STAYING = 4;
    (void)Append("127.0.0.2", 1);
    for (uint32_t i = 0; i < STAYING; ++i)
        (void)Append("127.0.0.3", STAYS + i);
    std::atomic<bool> isOver { false };
    std::atomic<int> missed { 0 };
    std::atomic<int> repeated { 0 };
    std::atomic<int> passes { 0 };
    const auto read = [&] {
        while (!isOver) {
            int met[STAYING] {};
            {
                const ReadSection section(m_table.Readers());
                m_table.ForEach([&](MyArqSendCB& stream) {
                    if (stream.StreamId() >= STAYS)
                        ++met[stream.StreamId() - STAYS];
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
    const auto takeFirstLeaving = [&] {
        for (int32_t i = 0; i < m_table.Count(); ++i) {
            if (m_table.At(i)->StreamId() < STAYS) {
                (void)m_table.Take(i);
                return;
            }
        }
    };
    for (uint32_t i = 0; i < 20000; ++i) {
        (void)Append("127.0.0.4", 1 + i % 100);
        takeFirstLeaving();
    }
    isOver = true;
    reader1.join();
    reader2.join();
    EXPECT_GT(passes, 0);
    EXPECT_EQ(missed, 0) << "of " << passes << " passes";
    EXPECT_EQ(repeated, 0) << "of " << passes << " passes";
}

} // namespace
