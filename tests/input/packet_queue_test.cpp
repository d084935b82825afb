#include "input/packet_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "input/packet_buffer.h"
#include "support/allocation_hooks.h"

using test_support::AllocationCount;
using test_support::FailNthAllocation;

namespace {

// The callbacks are plain functions: they tell the running test through these.
std::atomic<int> s_fullCalls { 0 };
std::atomic<int> s_emptyCalls { 0 };
std::atomic<PacketQueue*> s_lastQueue { nullptr };

void OnFull(PacketQueue* queue)
{
    s_lastQueue = queue;
    ++s_fullCalls;
    s_fullCalls.notify_all();
}

void OnEmpty(PacketQueue* queue)
{
    s_lastQueue = queue;
    ++s_emptyCalls;
    s_emptyCalls.notify_all();
}

class PacketQueueTest : public testing::Test {
protected:
    PacketQueueTest()
    {
        s_fullCalls = 0;
        s_emptyCalls = 0;
        s_lastQueue = nullptr;
    }

    std::unique_ptr<PacketQueue> MakeQueue(int32_t capacity)
    {
        bool ok = true;
        auto queue = std::make_unique<PacketQueue>(ok, capacity, OnFull, OnEmpty);
        EXPECT_TRUE(ok);
        return queue;
    }

    PacketBuffer* Buffer(size_t i) { return &m_buffers[i]; }

    std::vector<PacketBuffer> m_buffers { 600 };
};

// Pop with every out value that could go wrong preset.
PacketBuffer* PopNow(PacketQueue& queue, int* ok)
{
    *ok = -1;
    return queue.pop(ok, 0);
}

TEST_F(PacketQueueTest, GivesBackWhatWasPushed)
{
    const auto queue = MakeQueue(4);
    EXPECT_EQ(queue->push(Buffer(0), 0), 1);
    int ok = -1;
    EXPECT_EQ(PopNow(*queue, &ok), Buffer(0));
    EXPECT_EQ(ok, 1);
    EXPECT_EQ(s_fullCalls, 0);
    EXPECT_EQ(s_emptyCalls, 0);
}

TEST_F(PacketQueueTest, OrderIsFifoAcrossTheWrapOfTheRing)
{
    const auto queue = MakeQueue(3);
    size_t pushed = 0;
    size_t popped = 0;
    const auto pushOne = [&] { EXPECT_EQ(queue->push(Buffer(pushed++), 0), 1); };
    const auto popOne = [&] { EXPECT_EQ(queue->pop(nullptr, 0), Buffer(popped++)); };
    for (int round = 0; round < 20; ++round) {
        pushOne();
        pushOne();
        popOne();
        pushOne();
        popOne();
        popOne();
    }
    EXPECT_EQ(popped, 60U);
}

TEST_F(PacketQueueTest, PushingToAFullQueueWithTimeoutZeroReturnsZeroAfterTheCallback)
{
    const auto queue = MakeQueue(2);
    EXPECT_EQ(queue->push(Buffer(0), 0), 1);
    EXPECT_EQ(queue->push(Buffer(1), 0), 1);
    EXPECT_EQ(s_fullCalls, 0);
    EXPECT_EQ(queue->push(Buffer(2), 0), 0);
    EXPECT_EQ(s_fullCalls, 1);
    EXPECT_EQ(s_lastQueue, queue.get());
    EXPECT_EQ(queue->pop(nullptr, 0), Buffer(0));
    EXPECT_EQ(queue->pop(nullptr, 0), Buffer(1));
    EXPECT_EQ(queue->pop(nullptr, 0), nullptr); // the refused one is not in it
}

TEST_F(PacketQueueTest, PoppingFromAnEmptyQueueWithTimeoutZeroReturnsNullAfterTheCallback)
{
    const auto queue = MakeQueue(2);
    int ok = -1;
    EXPECT_EQ(PopNow(*queue, &ok), nullptr);
    EXPECT_EQ(ok, 0);
    EXPECT_EQ(s_emptyCalls, 1);
    EXPECT_EQ(s_lastQueue, queue.get());
    EXPECT_EQ(queue->pop(nullptr, 0), nullptr); // the out value may be null
    EXPECT_EQ(s_emptyCalls, 2);
}

TEST_F(PacketQueueTest, BothCallbacksMayBeNull)
{
    bool ok = true;
    PacketQueue queue(ok, 1, nullptr, nullptr);
    EXPECT_EQ(queue.pop(nullptr, 0), nullptr);
    EXPECT_EQ(queue.push(Buffer(0), 0), 1);
    EXPECT_EQ(queue.push(Buffer(1), 0), 0);
}

TEST_F(PacketQueueTest, APopWithTimeout100ReturnsNullAfterAbout100Ms)
{
    const auto queue = MakeQueue(2);
    int ok = -1;
    const auto start = std::chrono::system_clock::now();
    EXPECT_EQ(queue->pop(&ok, 100), nullptr);
    const auto waited = std::chrono::system_clock::now() - start;
    EXPECT_EQ(ok, 0);
    EXPECT_GE(waited, std::chrono::milliseconds(99));
    EXPECT_LT(waited, std::chrono::seconds(10));
}

TEST_F(PacketQueueTest, APushWithTimeout100GivesUpAfterAbout100Ms)
{
    const auto queue = MakeQueue(1);
    EXPECT_EQ(queue->push(Buffer(0), 0), 1);
    const auto start = std::chrono::system_clock::now();
    EXPECT_EQ(queue->push(Buffer(1), 100), 0);
    const auto waited = std::chrono::system_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(99));
    EXPECT_LT(waited, std::chrono::seconds(10));
}

// The on-full callback runs with the outer mutex held: once it has been called, a pop gets that mutex only
// when the waiting push gives it up.
TEST_F(PacketQueueTest, The513thPushBlocksUntilAPop)
{
    const auto queue = MakeQueue(512);
    for (size_t i = 0; i < 512; ++i)
        ASSERT_EQ(queue->push(Buffer(i), 0), 1);
    EXPECT_EQ(s_fullCalls, 0);
    std::atomic<bool> hasReturned { false };
    int result = -1;
    std::thread producer([&] {
        result = queue->push(Buffer(512), PacketQueue::NO_LIMIT);
        hasReturned = true;
    });
    s_fullCalls.wait(0);
    EXPECT_FALSE(hasReturned);
    EXPECT_EQ(queue->popWait(), Buffer(0));
    producer.join();
    EXPECT_EQ(result, 1);
    EXPECT_EQ(s_fullCalls, 1);
    for (size_t i = 1; i <= 512; ++i)
        ASSERT_EQ(queue->pop(nullptr, 0), Buffer(i));
    EXPECT_EQ(queue->pop(nullptr, 0), nullptr);
}

TEST_F(PacketQueueTest, APopWithoutLimitBlocksUntilAPush)
{
    const auto queue = MakeQueue(4);
    std::atomic<bool> hasReturned { false };
    PacketBuffer* received = nullptr;
    std::thread consumer([&] {
        received = queue->popWait();
        hasReturned = true;
    });
    s_emptyCalls.wait(0);
    EXPECT_FALSE(hasReturned);
    EXPECT_EQ(queue->push(Buffer(7), PacketQueue::NO_LIMIT), 1);
    consumer.join();
    EXPECT_EQ(received, Buffer(7));
    EXPECT_EQ(s_emptyCalls, 1);
}

TEST_F(PacketQueueTest, ATimedWaitIsEndedByAPush)
{
    const auto queue = MakeQueue(4);
    PacketBuffer* received = nullptr;
    int ok = -1;
    std::thread consumer([&] { received = queue->pop(&ok, 60000); });
    s_emptyCalls.wait(0);
    EXPECT_EQ(queue->push(Buffer(3), 0), 1);
    consumer.join();
    EXPECT_EQ(received, Buffer(3));
    EXPECT_EQ(ok, 1);
}

TEST_F(PacketQueueTest, ATimedPushIsEndedByAPop)
{
    const auto queue = MakeQueue(1);
    EXPECT_EQ(queue->push(Buffer(0), 0), 1);
    int result = -1;
    std::thread producer([&] { result = queue->push(Buffer(1), 60000); });
    s_fullCalls.wait(0);
    EXPECT_EQ(queue->pop(nullptr, 0), Buffer(0));
    producer.join();
    EXPECT_EQ(result, 1);
    EXPECT_EQ(queue->pop(nullptr, 0), Buffer(1));
}

// A waiter that is woken although nothing changed for it: the place it was woken for is taken again before
// it runs. Which thread comes first is the scheduler's choice, so the round is repeated until it happens.
TEST_F(PacketQueueTest, APushWokenWhileStillFullDropsItsBufferAndReturnsOne)
{
    constexpr int MAX_ROUNDS = 10000;
    bool hasDropped = false;
    for (int round = 0; round < MAX_ROUNDS && !hasDropped; ++round) {
        s_fullCalls = 0;
        const auto queue = MakeQueue(1);
        ASSERT_EQ(queue->push(Buffer(0), 0), 1);
        int result = -1;
        std::thread producer([&] { result = queue->push(Buffer(1), PacketQueue::NO_LIMIT); });
        s_fullCalls.wait(0);
        ASSERT_EQ(queue->pop(nullptr, 0), Buffer(0));
        hasDropped = queue->push(Buffer(2), 0) == 1;
        producer.join();
        EXPECT_EQ(result, 1);
        EXPECT_EQ(queue->pop(nullptr, 0), Buffer(hasDropped ? 2 : 1));
        EXPECT_EQ(queue->pop(nullptr, 0), nullptr);
    }
    EXPECT_TRUE(hasDropped);
}

TEST_F(PacketQueueTest, APopWokenWhileStillEmptyReturnsNullWithOkSet)
{
    constexpr int MAX_ROUNDS = 10000;
    bool hasMissed = false;
    for (int round = 0; round < MAX_ROUNDS && !hasMissed; ++round) {
        s_emptyCalls = 0;
        const auto queue = MakeQueue(1);
        PacketBuffer* received = Buffer(1);
        int ok = -1;
        std::thread consumer([&] { received = queue->pop(&ok, PacketQueue::NO_LIMIT); });
        s_emptyCalls.wait(0);
        ASSERT_EQ(queue->push(Buffer(0), 0), 1);
        hasMissed = queue->pop(nullptr, 0) == Buffer(0);
        consumer.join();
        EXPECT_EQ(ok, 1);
        EXPECT_EQ(received, hasMissed ? nullptr : Buffer(0));
    }
    EXPECT_TRUE(hasMissed);
}

// ---- Several in one call

using Buffers = std::vector<PacketBuffer*>;

TEST_F(PacketQueueTest, ABatchOfPushesStandsInTheQueueInItsOrderBehindWhatWasThere)
{
    const auto queue = MakeQueue(8);
    EXPECT_EQ(queue->push(Buffer(0), 0), 1);
    PacketBuffer* const pushed[] = { Buffer(1), Buffer(2), Buffer(3) };
    EXPECT_EQ(queue->pushBatch(pushed, 3, 0), 3);
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(queue->pop(nullptr, 0), Buffer(i));
    EXPECT_EQ(queue->pop(nullptr, 0), nullptr);
}

TEST_F(PacketQueueTest, ABatchOfPopsTakesWhatIsThereInItsOrderAndNoMoreThanItMay)
{
    const auto queue = MakeQueue(8);
    for (size_t i = 0; i < 5; ++i)
        EXPECT_EQ(queue->push(Buffer(i), 0), 1);
    PacketBuffer* out[4] = {};
    EXPECT_EQ(queue->popBatch(out, 3), 3);
    EXPECT_EQ(Buffers(out, out + 4), (Buffers { Buffer(0), Buffer(1), Buffer(2), nullptr }));
    EXPECT_EQ(queue->popBatch(out, 3), 2);
    EXPECT_EQ(Buffers(out, out + 2), (Buffers { Buffer(3), Buffer(4) }));
    EXPECT_EQ(s_emptyCalls, 0);
}

TEST_F(PacketQueueTest, BatchesKeepTheOrderAcrossTheWrapOfTheRing)
{
    const auto queue = MakeQueue(5);
    Buffers received;
    for (size_t next = 0; next < 60; next += 4) {
        PacketBuffer* const pushed[] = { Buffer(next), Buffer(next + 1), Buffer(next + 2), Buffer(next + 3) };
        EXPECT_EQ(queue->pushBatch(pushed, 4, 0), 4);
        PacketBuffer* out[8] = {};
        EXPECT_EQ(queue->popBatch(out, 8), 4);
        received.insert(received.end(), out, out + 4);
    }
    for (size_t i = 0; i < received.size(); ++i)
        EXPECT_EQ(received[i], Buffer(i));
}

// What the input pushes when it ends is to wake main, which has no packet then.
TEST_F(PacketQueueTest, ABatchOfPopsLeavesOutNullsAndANullAloneEndsItsWait)
{
    const auto queue = MakeQueue(8);
    PacketBuffer* const pushed[] = { nullptr, Buffer(1), nullptr, nullptr, Buffer(2), nullptr };
    EXPECT_EQ(queue->pushBatch(pushed, 6, 0), 6);
    PacketBuffer* out[8] = {};
    ASSERT_EQ(queue->popBatch(out, 8), 2);
    EXPECT_EQ(Buffers(out, out + 2), (Buffers { Buffer(1), Buffer(2) }));
    int32_t count = -1;
    std::thread consumer([&] { count = queue->popBatch(out, 8); });
    s_emptyCalls.wait(0);
    EXPECT_EQ(queue->push(nullptr, PacketQueue::NO_LIMIT), 1);
    consumer.join();
    EXPECT_EQ(count, 0);
    EXPECT_EQ(queue->pop(nullptr, 0), nullptr);
    EXPECT_EQ(s_emptyCalls, 2) << "the nulls are taken";
}

TEST_F(PacketQueueTest, ABatchOfPopsFromAnEmptyQueueWaitsOnceAndTakesWhatOneCallPushed)
{
    const auto queue = MakeQueue(8);
    PacketBuffer* out[8] = {};
    int32_t count = -1;
    std::thread consumer([&] { count = queue->popBatch(out, 8); });
    s_emptyCalls.wait(0);
    PacketBuffer* const pushed[] = { Buffer(5), Buffer(6), Buffer(7) };
    EXPECT_EQ(queue->pushBatch(pushed, 3, 0), 3);
    consumer.join();
    ASSERT_EQ(count, 3);
    EXPECT_EQ(Buffers(out, out + 3), (Buffers { Buffer(5), Buffer(6), Buffer(7) }));
    EXPECT_EQ(s_emptyCalls, 1);
}

TEST_F(PacketQueueTest, EachPushOfABatchThatFindsNoRoomCallsBackAndTimesOutByItself)
{
    const auto queue = MakeQueue(3);
    EXPECT_EQ(queue->push(Buffer(0), 0), 1);
    PacketBuffer* const pushed[] = { Buffer(1), Buffer(2), Buffer(3), Buffer(4) };
    EXPECT_EQ(queue->pushBatch(pushed, 4, 0), 2);
    EXPECT_EQ(s_fullCalls, 2);
    PacketBuffer* out[8] = {};
    ASSERT_EQ(queue->popBatch(out, 8), 3);
    EXPECT_EQ(Buffers(out, out + 3), (Buffers { Buffer(0), Buffer(1), Buffer(2) }));
}

// The consumer sleeps while the queue is still empty: a batch longer than the queue waits for the room that this
// consumer makes, so it has to be woken before.
TEST_F(PacketQueueTest, ABatchLongerThanTheQueueWakesTheConsumerBeforeItWaitsForRoom)
{
    constexpr int32_t COUNT = 7;
    for (const int32_t capacity : { 1, 2, 3 }) {
        s_emptyCalls = 0;
        const auto queue = MakeQueue(capacity);
        Buffers pushed;
        for (size_t i = 0; i < COUNT; ++i)
            pushed.push_back(Buffer(i));
        Buffers received;
        std::thread consumer([&] {
            for (int isInTime = 1; received.size() < COUNT && isInTime != 0;) {
                PacketBuffer* buffer = queue->pop(&isInTime, 20000);
                if (buffer != nullptr) // null: woken late, by the signal for one taken before
                    received.push_back(buffer);
            }
        });
        s_emptyCalls.wait(0);
        EXPECT_EQ(queue->pushBatch(pushed.data(), COUNT, 20000), COUNT);
        consumer.join();
        EXPECT_EQ(received, pushed) << capacity;
    }
}

TEST_F(PacketQueueTest, OneBatchOfPopsMakesRoomForTheRestOfABatchOfPushes)
{
    const auto queue = MakeQueue(4);
    Buffers pushed;
    for (size_t i = 0; i < 8; ++i)
        pushed.push_back(Buffer(i));
    int32_t accepted = -1;
    std::thread producer([&] { accepted = queue->pushBatch(pushed.data(), 8, PacketQueue::NO_LIMIT); });
    s_fullCalls.wait(0);
    PacketBuffer* out[8] = {};
    ASSERT_EQ(queue->popBatch(out, 8), 4);
    producer.join();
    EXPECT_EQ(accepted, 8);
    ASSERT_EQ(queue->popBatch(out + 4, 4), 4);
    EXPECT_EQ(Buffers(out, out + 8), pushed);
    EXPECT_EQ(s_fullCalls, 1);
}

TEST_F(PacketQueueTest, BatchesOfPushesAndPopsPassEveryBufferOnceAndInOrder)
{
    constexpr size_t COUNT = 20000;
    std::vector<PacketBuffer> buffers(COUNT);
    Buffers pushed;
    for (PacketBuffer& buffer : buffers)
        pushed.push_back(&buffer);
    const auto queue = MakeQueue(8);
    int32_t accepted = 0;
    std::atomic<bool> hasEnded { false };
    std::thread producer([&] {
        for (size_t done = 0, length = 1; done < COUNT; done += length, length = length % 13 + 1) {
            length = std::min(length, COUNT - done);
            accepted += queue->pushBatch(&pushed[done], static_cast<int32_t>(length), PacketQueue::NO_LIMIT);
        }
        hasEnded = true;
        (void)queue->push(nullptr, PacketQueue::NO_LIMIT); // the consumer looks again
    });
    Buffers received;
    while (!hasEnded) {
        PacketBuffer* out[5] = {};
        received.insert(received.end(), out, out + queue->popBatch(out, 5));
    }
    // The last batch may fill the queue: the producer then waits with its null for the room that is made here.
    for (PacketBuffer* rest = queue->pop(nullptr, 0); rest != nullptr; rest = queue->pop(nullptr, 0))
        received.push_back(rest);
    producer.join();
    EXPECT_EQ(accepted, static_cast<int32_t>(COUNT));
    EXPECT_TRUE(received == pushed);
}

// The queue is full and empty again and again here, so that both sides wait and wake all the time.
TEST_F(PacketQueueTest, EveryBufferPassesOnceAndInOrderBetweenTwoThreads)
{
    constexpr size_t COUNT = 20000;
    std::vector<PacketBuffer> buffers(COUNT);
    const auto queue = MakeQueue(8);
    size_t accepted = 0;
    std::thread producer([&] {
        for (PacketBuffer& buffer : buffers)
            accepted += static_cast<size_t>(queue->push(&buffer, PacketQueue::NO_LIMIT));
    });
    constexpr uint32_t LONGEST_WAIT_MS = 20000;
    size_t received = 0;
    size_t outOfOrder = 0;
    for (int isInTime = 1; received < COUNT && isInTime != 0;) {
        const PacketBuffer* buffer = queue->pop(&isInTime, LONGEST_WAIT_MS);
        if (buffer == nullptr)
            continue; // woken late, by the signal for a buffer taken before
        outOfOrder += buffer == &buffers[received] ? 0 : 1;
        ++received;
    }
    producer.join();
    EXPECT_EQ(accepted, COUNT);
    EXPECT_EQ(received, COUNT);
    EXPECT_EQ(outOfOrder, 0U);
}

TEST_F(PacketQueueTest, AFailedAllocationClearsTheFlagAndTheQueueTakesAndGivesNothing)
{
    bool ok = true;
    const FailNthAllocation failure(1);
    PacketQueue queue(ok, 512, nullptr, nullptr);
    EXPECT_TRUE(failure.Fired());
    EXPECT_FALSE(ok);
    EXPECT_EQ(queue.push(Buffer(0), 0), 0);
    int okOut = -1;
    EXPECT_EQ(PopNow(queue, &okOut), nullptr);
    EXPECT_EQ(okOut, 0);
}

TEST_F(PacketQueueTest, CreationLeavesTheFlagAsItWas)
{
    bool ok = false;
    const PacketQueue queue(ok, 4, nullptr, nullptr);
    EXPECT_FALSE(ok);
}

TEST_F(PacketQueueTest, PushAndPopAllocateNothing)
{
    const auto queue = MakeQueue(4);
    const AllocationCount allocations;
    for (int i = 0; i < 10; ++i) {
        (void)queue->push(Buffer(0), 0);
        (void)queue->pop(nullptr, 0);
        PacketBuffer* several[] = { Buffer(1), Buffer(2) };
        (void)queue->pushBatch(several, 2, 0);
        (void)queue->popBatch(several, 2);
    }
    EXPECT_EQ(allocations.Count(), 0U);
}

struct DeadlineCase {
    timeval now;
    uint32_t timeoutMs;
    timespec deadline;
};

TEST(QueueDeadline, AddsTheTimeoutAndCarriesWholeSeconds)
{
    const DeadlineCase cases[] = {
        { { 100, 0 }, 0, { 100, 0 } },
        { { 100, 250000 }, 100, { 100, 350000000 } },
        { { 100, 1 }, 999, { 100, 999001000 } },
        { { 100, 999999 }, 0, { 100, 999999000 } },
        { { 100, 999000 }, 0, { 100, 999000000 } },
        { { 100, 998999 }, 1, { 100, 999999000 } },
        { { 100, 999000 }, 1, { 101, 0 } },
        { { 100, 999999 }, 1, { 101, 999000 } },
        { { 100, 0 }, 1000, { 101, 0 } },
        { { 100, 500000 }, 2600, { 103, 100000000 } },
        { { 100, 999999 }, 999, { 101, 998999000 } },
        { { 100, 0 }, 0xFFFFFFFE, { 100 + 4294967, 294000000 } },
    };
    for (const DeadlineCase& c : cases) {
        const timespec deadline = QueueDeadline(c.now, c.timeoutMs);
        EXPECT_EQ(deadline.tv_sec, c.deadline.tv_sec) << c.now.tv_usec << " us + " << c.timeoutMs << " ms";
        EXPECT_EQ(deadline.tv_nsec, c.deadline.tv_nsec) << c.now.tv_usec << " us + " << c.timeoutMs << " ms";
    }
}

} // namespace
