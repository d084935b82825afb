#include "replicator/thread_crew.h"

#include <atomic>
#include <cerrno>

#include <gtest/gtest.h>

#include "support/allocation_hooks.h"
#include "support/loopback.h"
#include "support/system_hooks.h"

namespace {

struct Work {
    std::atomic<bool> isStarted { false };
    std::atomic<bool> mayEnd { false };
    std::atomic<bool> isLeaving { false };
};

void WorkUntilTold(void* argument)
{
    Work& work = *static_cast<Work*>(argument);
    work.isStarted = true;
    (void)test_support::WaitFor([&] { return work.mayEnd.load(); });
    work.isLeaving = true;
}

TEST(ThreadCrew, ACrewWithoutThreadsIsGone)
{
    const ThreadCrew crew;
    EXPECT_TRUE(crew.IsGone());
    crew.WaitUntilGone();
}

TEST(ThreadCrew, StartRunsTheEntryOnAThreadOfItsOwn)
{
    ThreadCrew crew;
    Work work;
    ASSERT_TRUE(crew.Start(WorkUntilTold, &work));
    EXPECT_TRUE(test_support::WaitFor([&] { return work.isStarted.load(); }));
    EXPECT_FALSE(crew.IsGone());
    work.mayEnd = true;
    crew.WaitUntilGone();
    EXPECT_TRUE(crew.IsGone());
    EXPECT_TRUE(work.isLeaving);
}

TEST(ThreadCrew, TheCrewIsGoneOnlyWithItsLastThread)
{
    ThreadCrew crew;
    Work first;
    Work second;
    ASSERT_TRUE(crew.Start(WorkUntilTold, &first));
    ASSERT_TRUE(crew.Start(WorkUntilTold, &second));
    first.mayEnd = true;
    EXPECT_TRUE(test_support::WaitFor([&] { return first.isLeaving.load() && second.isStarted.load(); }));
    EXPECT_FALSE(crew.IsGone());
    second.mayEnd = true;
    crew.WaitUntilGone();
    EXPECT_TRUE(second.isLeaving);
}

TEST(ThreadCrew, AThreadThatCannotBeMadeIsNotWaitedForAndTheReasonIsInErrno)
{
    ThreadCrew crew;
    Work work;
    const test_support::FailCalls threads(test_support::SystemCall::CreateThread, EAGAIN);
    errno = 0;
    EXPECT_FALSE(crew.Start(WorkUntilTold, &work));
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(threads.Count(), 1);
    EXPECT_TRUE(crew.IsGone());
    crew.WaitUntilGone();
}

TEST(ThreadCrew, WithoutMemoryForAThreadThereIsNoneToWaitFor)
{
    ThreadCrew crew;
    Work work;
    const test_support::FailNthAllocation failing(1);
    errno = 0;
    EXPECT_FALSE(crew.Start(WorkUntilTold, &work));
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(failing.Fired());
    EXPECT_TRUE(crew.IsGone());
}

} // namespace
