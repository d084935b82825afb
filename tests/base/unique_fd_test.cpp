#include "base/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <utility>

namespace {

int OpenSomething()
{
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool IsOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

TEST(UniqueFd, IsEmptyAtFirst)
{
    const UniqueFd fd;
    EXPECT_EQ(fd.Get(), -1);
    EXPECT_FALSE(fd.IsValid());
}

TEST(UniqueFd, ClosesWhatItHoldsOnDestruction)
{
    const int raw = OpenSomething();
    {
        const UniqueFd fd(raw);
        EXPECT_EQ(fd.Get(), raw);
        EXPECT_TRUE(fd.IsValid());
        EXPECT_TRUE(IsOpen(raw));
    }
    EXPECT_FALSE(IsOpen(raw));
}

TEST(UniqueFd, ReleaseGivesTheDescriptorAway)
{
    UniqueFd fd(OpenSomething());
    const int raw = fd.Release();
    EXPECT_FALSE(fd.IsValid());
    fd.Reset();
    EXPECT_TRUE(IsOpen(raw));
    EXPECT_EQ(close(raw), 0);
}

TEST(UniqueFd, MovingHandsTheDescriptorOver)
{
    const int raw = OpenSomething();
    UniqueFd first(raw);
    UniqueFd second(std::move(first));
    EXPECT_EQ(second.Get(), raw);
    EXPECT_EQ(first.Get(), -1); // NOLINT(bugprone-use-after-move): a moved-from owner is empty
    const int older = OpenSomething();
    UniqueFd third(older);
    third = std::move(second);
    EXPECT_EQ(third.Get(), raw);
    EXPECT_FALSE(IsOpen(older));
    EXPECT_TRUE(IsOpen(raw));
}

TEST(UniqueFd, ResetClosesTheOldAndTakesTheNew)
{
    const int older = OpenSomething();
    const int newer = OpenSomething();
    UniqueFd fd(older);
    fd.Reset(newer);
    EXPECT_FALSE(IsOpen(older));
    EXPECT_TRUE(IsOpen(newer));
    fd.Reset();
    EXPECT_FALSE(IsOpen(newer));
    EXPECT_FALSE(fd.IsValid());
}

TEST(UniqueFd, ResetToTheDescriptorItHoldsKeepsItOpen)
{
    const int raw = OpenSomething();
    UniqueFd fd(raw);
    fd.Reset(raw);
    EXPECT_TRUE(IsOpen(raw));
    EXPECT_EQ(fd.Get(), raw);
}

TEST(UniqueFd, DescriptorZeroIsValid)
{
    UniqueFd fd(0);
    EXPECT_TRUE(fd.IsValid());
    EXPECT_EQ(fd.Release(), 0);
}

} // namespace
