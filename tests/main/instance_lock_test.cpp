#include "main/instance_lock.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

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
