#include "control/wait_readable.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <chrono>

#include <gtest/gtest.h>

#include "base/unique_fd.h"

namespace {

using Clock = std::chrono::steady_clock;

class WaitReadableTest : public testing::Test {
protected:
    WaitReadableTest()
    {
        int ends[2] = { -1, -1 };
        EXPECT_EQ(pipe(ends), 0);
        m_read.Reset(ends[0]);
        m_write.Reset(ends[1]);
    }

    UniqueFd m_read;
    UniqueFd m_write;
};

TEST_F(WaitReadableTest, DataMakeADescriptorReadable)
{
    EXPECT_FALSE(WaitReadable(m_read.Get(), 0));
    ASSERT_EQ(write(m_write.Get(), "x", 1), 1);
    EXPECT_TRUE(WaitReadable(m_read.Get(), 0));
    EXPECT_TRUE(WaitReadable(m_read.Get(), 20000));
}

TEST_F(WaitReadableTest, AClosedOtherEndMakesADescriptorReadable)
{
    m_write.Reset();
    EXPECT_TRUE(WaitReadable(m_read.Get(), 20000));
}

TEST_F(WaitReadableTest, ItWaitsTheWholeTimeAlsoBeyondASecond)
{
    for (const int ms : { 30, 1020 }) {
        const auto before = Clock::now();
        EXPECT_FALSE(WaitReadable(m_read.Get(), static_cast<uint32_t>(ms)));
        EXPECT_GE(Clock::now() - before, std::chrono::milliseconds(ms));
    }
}

TEST_F(WaitReadableTest, AnErrorIsNotReadable)
{
    const int closed = m_read.Get();
    m_read.Reset();
    EXPECT_FALSE(WaitReadable(closed, 0));
    EXPECT_FALSE(WaitReadable(-1, 0));
}

TEST_F(WaitReadableTest, ADescriptorThatSelectHasNoRoomForIsNotReadable)
{
    rlimit limit {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_EQ(write(m_write.Get(), "x", 1), 1);
    const UniqueFd high(fcntl(m_read.Get(), F_DUPFD, FD_SETSIZE));
    ASSERT_GE(high.Get(), FD_SETSIZE);
    EXPECT_FALSE(WaitReadable(high.Get(), 0));
    EXPECT_TRUE(WaitReadable(m_read.Get(), 0));
}

} // namespace
