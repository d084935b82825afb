#include "arqrx/program/sample_board.h"

#include <gtest/gtest.h>

#include <poll.h>

#include <thread>

namespace {

using arqrx::Sample;
using arqrx::SampleBoard;

constexpr int64_t LONG_US = 60'000'000;

Sample At(int64_t runUs)
{
    Sample sample;
    sample.runUs = runUs;
    return sample;
}

TEST(SampleBoard, NothingIsWantedUntilSomebodyAsks)
{
    SampleBoard board;
    EXPECT_FALSE(board.IsWanted());
    EXPECT_EQ(board.Fresh(0).runUs, 0);
    EXPECT_TRUE(board.IsWanted());
    EXPECT_FALSE(board.IsWanted());
}

TEST(SampleBoard, WhoAsksGetsASampleOfAfterwards)
{
    SampleBoard board;
    board.Publish(At(1));
    std::thread media([&] {
        pollfd waiting { board.WakeDescriptor(), POLLIN, 0 };
        EXPECT_EQ(poll(&waiting, 1, 60'000), 1);
        EXPECT_TRUE(board.IsWanted());
        board.Publish(At(2));
        waiting.revents = 0;
        EXPECT_EQ(poll(&waiting, 1, 0), 0); // asked once, woken once
    });
    EXPECT_EQ(board.Fresh(LONG_US).runUs, 2);
    media.join();
}

TEST(SampleBoard, NobodyWaitsForASampleThatNeverComes)
{
    SampleBoard board;
    board.Publish(At(1));
    EXPECT_EQ(board.Fresh(1000).runUs, 1);
    board.Publish(At(2));
    board.Close();
    EXPECT_EQ(board.Fresh(LONG_US).runUs, 2);
}

} // namespace
