#include "replicator/shared_socket.h"

#include <fcntl.h>
#include <unistd.h>

#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/allocation_hooks.h"

namespace {

bool IsOpenSocket(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

int NewFd()
{
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TEST(SharedSocket, AnEmptyOneHoldsNothing)
{
    const SharedSocket empty;
    EXPECT_EQ(empty.Get(), -1);
    EXPECT_FALSE(empty.IsValid());
    const SharedSocket none(-1);
    EXPECT_EQ(none.Get(), -1);
    const SharedSocket copy(none);
    EXPECT_FALSE(copy.IsValid());
}

TEST(SharedSocket, TheDescriptorIsClosedWithItsLastShare)
{
    const int fd = NewFd();
    {
        SharedSocket first(fd);
        EXPECT_EQ(first.Get(), fd);
        {
            const SharedSocket second(first);
            EXPECT_EQ(second.Get(), fd);
        }
        EXPECT_TRUE(IsOpenSocket(fd));
        const SharedSocket third(first);
        first = SharedSocket();
        EXPECT_FALSE(first.IsValid());
        EXPECT_EQ(third.Get(), fd);
        EXPECT_TRUE(IsOpenSocket(fd));
    }
    EXPECT_FALSE(IsOpenSocket(fd));
}

TEST(SharedSocket, AMovedFromShareIsEmptyAndCountsNoMore)
{
    const int fd = NewFd();
    {
        SharedSocket first(fd);
        const SharedSocket second(std::move(first));
        EXPECT_FALSE(first.IsValid()); // NOLINT(bugprone-use-after-move): what is proved
        EXPECT_EQ(second.Get(), fd);
    }
    EXPECT_FALSE(IsOpenSocket(fd));
}

TEST(SharedSocket, AssignmentGivesUpTheShareHeldBefore)
{
    const int oldFd = NewFd();
    const int newFd = NewFd();
    SharedSocket socket(oldFd);
    const SharedSocket other(newFd);
    socket = other;
    EXPECT_FALSE(IsOpenSocket(oldFd));
    EXPECT_EQ(socket.Get(), newFd);
    const SharedSocket& itself = socket;
    socket = itself;
    EXPECT_TRUE(IsOpenSocket(newFd));
    EXPECT_EQ(socket.Get(), newFd);
}

TEST(SharedSocket, WithoutMemoryTheDescriptorIsClosedAndNothingHeld)
{
    const int fd = NewFd();
    const test_support::FailNthAllocation failing(1);
    const SharedSocket socket(fd);
    EXPECT_TRUE(failing.Fired());
    EXPECT_FALSE(socket.IsValid());
    EXPECT_FALSE(IsOpenSocket(fd));
}

TEST(SharedSocket, SharesMayBeTakenAndGivenUpByTwoThreadsAtOnce)
{
    const int fd = NewFd();
    {
        const SharedSocket socket(fd);
        const auto take = [&socket] {
            std::vector<SharedSocket> shares;
            for (int i = 0; i < 10000; ++i) {
                shares.push_back(socket);
                if (shares.size() == 50)
                    shares.clear();
            }
        };
        std::thread other(take);
        take();
        other.join();
        EXPECT_TRUE(IsOpenSocket(fd));
    }
    EXPECT_FALSE(IsOpenSocket(fd));
}

} // namespace
