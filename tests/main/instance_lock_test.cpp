#include "main/instance_lock.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "main/proxy_run.h"
#include "support/system_hooks.h"

namespace {

using namespace test_support;

TEST(InstanceLock, IsHeldUntilItIsDestroyed)
{
    const InstanceLease lease;
    const CapturedOutput output;
    {
        InstanceLock first;
        EXPECT_TRUE(first.Take(lease.Instance()));
        InstanceLock second;
        EXPECT_FALSE(second.Take(lease.Instance()));
    }
    EXPECT_TRUE(InstanceLease::IsLockFree(lease.Instance()));
}

TEST(InstanceLock, OneHeldElsewhereIsRefusedWithoutAMessage)
{
    const InstanceLease lease;
    InstanceLock first;
    ASSERT_TRUE(first.Take(lease.Instance()));
    CapturedOutput output;
    EXPECT_FALSE(InstanceLock().Take(lease.Instance()));
    EXPECT_EQ(output.Err(), "");
}

TEST(InstanceLock, WithoutASocketItIsNotTakenAndTheReasonIsPrinted)
{
    const FailCalls sockets(SystemCall::OpenSocket, EMFILE);
    CapturedOutput output;
    EXPECT_FALSE(InstanceLock().Take(1));
    EXPECT_EQ(sockets.Count(), 1);
    EXPECT_EQ(output.Err(), "creating socket: " + std::string(strerror(EMFILE)) + "\n");
}

TEST(InstanceLockPort, Is32123PlusTheInstance)
{
    EXPECT_EQ(InstanceLock::Port(1), 32124);
    EXPECT_EQ(InstanceLock::Port(0), 32123);
    EXPECT_EQ(InstanceLock::Port(2), 32125);
}

TEST(InstanceLockPort, IsTruncatedTo16Bits)
{
    EXPECT_EQ(InstanceLock::Port(33412), 65535);
    EXPECT_EQ(InstanceLock::Port(33413), 0);
    EXPECT_EQ(InstanceLock::Port(65537), 32124);
    EXPECT_EQ(InstanceLock::Port(-1), 32122);
    EXPECT_EQ(InstanceLock::Port(INT32_MAX), 32122);
    EXPECT_EQ(InstanceLock::Port(INT32_MIN), 32123);
}

} // namespace
