#include "control/wait_readable.h"

#include <unistd.h>

#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "support/high_descriptor.h"
#include "support/system_hooks.h"

namespace {

using test_support::DuplicateHigh;
using test_support::ShortWaits;

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

TEST_F(WaitReadableTest, ItWaitsAsLongAsItIsToldToAlsoBeyondASecond)
{
    const ShortWaits waits(ShortWaits::OwnPolls::Cut);
    EXPECT_FALSE(WaitReadable(m_read.Get(), 30));
    EXPECT_EQ(waits.PollsMs(), (std::set<int> { 30 }));
    EXPECT_FALSE(WaitReadable(m_read.Get(), 1020));
    EXPECT_EQ(waits.PollsMs(), (std::set<int> { 30, 1020 }));
    EXPECT_TRUE(waits.SleepsMs().empty());
}

TEST_F(WaitReadableTest, ADescriptorFrom1024OnIsWaitedForLikeAnyOther)
{
    const UniqueFd high = DuplicateHigh(m_read.Get());
    EXPECT_FALSE(WaitReadable(high.Get(), 0));
    ASSERT_EQ(write(m_write.Get(), "x", 1), 1);
    EXPECT_TRUE(WaitReadable(high.Get(), 20000));
}

TEST_F(WaitReadableTest, AClosedDescriptorIsNotReadableAndTakesTheWholeTime)
{
    const int closed = m_read.Get();
    m_read.Reset();
    const ShortWaits waits;
    EXPECT_FALSE(WaitReadable(closed, 500));
    EXPECT_EQ(waits.SleepsMs(), (std::vector<uint32_t> { 500 }));
}

TEST_F(WaitReadableTest, ASignalEndsTheWaitEarly)
{
    const ShortWaits waits;
    ASSERT_EQ(write(m_write.Get(), "x", 1), 1);
    {
        const test_support::FailCalls polls(test_support::SystemCall::Poll, EINTR);
        EXPECT_FALSE(WaitReadable(m_read.Get(), 500));
        EXPECT_EQ(polls.Count(), 1);
    }
    EXPECT_TRUE(waits.SleepsMs().empty());
    EXPECT_TRUE(WaitReadable(m_read.Get(), 500));
}

TEST_F(WaitReadableTest, NoDescriptorIsNotReadableAndTakesTheWholeTime)
{
    const ShortWaits waits(ShortWaits::OwnPolls::Cut);
    EXPECT_FALSE(WaitReadable(-1, 30));
    EXPECT_EQ(waits.PollsMs(), (std::set<int> { 30 })) << "the system waits for nothing";
}

} // namespace
