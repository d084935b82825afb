#include "input/udp_input.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

TEST(WantedReceiveBuffer, IsFourTimesTheCurrentOne)
{
    EXPECT_EQ(WantedReceiveBuffer(2304), 9216);
    EXPECT_EQ(WantedReceiveBuffer(0), 0);
}

TEST(WantedReceiveBuffer, IsAtMost524288Bytes)
{
    EXPECT_EQ(WantedReceiveBuffer(131071), 524284);
    EXPECT_EQ(WantedReceiveBuffer(131072), 524288);
    EXPECT_EQ(WantedReceiveBuffer(131073), 524288);
    EXPECT_EQ(WantedReceiveBuffer(212992), 524288);
}

TEST(WantedReceiveBuffer, TheLargestNumberDoesNotOverflow)
{
    EXPECT_EQ(WantedReceiveBuffer(INT32_MAX), 524288);
}

} // namespace
