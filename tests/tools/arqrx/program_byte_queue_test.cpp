#include "arqrx/program/byte_queue.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using arqrx::ByteQueue;
using Bytes = std::vector<uint8_t>;

TEST(ByteQueue, GivesBackWhatWasPushedPieceBehindPiece)
{
    ByteQueue queue(100);
    EXPECT_TRUE(queue.Push(Bytes { 1, 2 }, Bytes { 3 }));
    EXPECT_TRUE(queue.Push(Bytes { 4 }, {}));
    Bytes bytes { 9 };
    EXPECT_TRUE(queue.Pop(bytes));
    EXPECT_EQ(bytes, (Bytes { 1, 2, 3, 4 }));
}

TEST(ByteQueue, TakesAPacketWholeOrNotAtAll)
{
    ByteQueue queue(4);
    EXPECT_TRUE(queue.Push(Bytes { 1 }, Bytes { 2, 3 }));
    EXPECT_FALSE(queue.Push(Bytes { 4 }, Bytes { 5 }));
    EXPECT_TRUE(queue.Push(Bytes { 6 }, {}));
    Bytes bytes;
    EXPECT_TRUE(queue.Pop(bytes));
    EXPECT_EQ(bytes, (Bytes { 1, 2, 3, 6 }));
}

TEST(ByteQueue, CountsWhatWasPoppedUntilTheNextPop)
{
    ByteQueue queue(4);
    EXPECT_TRUE(queue.Push(Bytes { 1, 2, 3 }, {}));
    Bytes bytes;
    EXPECT_TRUE(queue.Pop(bytes));
    EXPECT_FALSE(queue.Push(Bytes { 4, 5 }, {})); // three bytes are still being written
    EXPECT_TRUE(queue.Push(Bytes { 6 }, {}));
    EXPECT_TRUE(queue.Pop(bytes));
    EXPECT_TRUE(queue.Push(Bytes { 7, 8, 9 }, {}));
}

TEST(ByteQueue, WhatWasPushedBeforeTheEndStillComes)
{
    ByteQueue queue(4);
    EXPECT_TRUE(queue.Push(Bytes { 1 }, {}));
    queue.Close();
    Bytes bytes;
    EXPECT_TRUE(queue.Pop(bytes));
    EXPECT_FALSE(queue.Pop(bytes));
}

TEST(ByteQueue, AReaderThatWaitsIsWokenByARing)
{
    ByteQueue queue(1000);
    size_t got = 0;
    std::thread reader([&] {
        Bytes bytes;
        while (queue.Pop(bytes))
            got += bytes.size();
    });
    for (int i = 0; i < 100; ++i) {
        while (!queue.Push(Bytes(10, 0), {}))
            std::this_thread::yield();
        queue.Ring();
    }
    queue.Close();
    reader.join();
    EXPECT_EQ(got, 1000U);
}

} // namespace
