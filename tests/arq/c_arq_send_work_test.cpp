// What answering costs, by which a receiver's quota is charged.
#include <gtest/gtest.h>

#include "arq/request_work.h"
#include "support/captured_output.h"
#include "support/engine_fixture.h"

using test_support::Bytes;
using test_support::CapturedOutput;
using test_support::EngineTest;

namespace {

class ArqWorkTest : public EngineTest {
protected:
    uint32_t WorkOf(const Bytes& datagram)
    {
        const uint32_t before = m_pEngine->Work();
        (void)Process(datagram);
        return m_pEngine->Work() - before;
    }
};

TEST_F(ArqWorkTest, ANumberLookedUpIsOneAndADatagramSent32More)
{
    StoreAll(1, 2);
    EXPECT_EQ(WorkOf(test_support::Request({ 10, 11, 12 })), 3U) << "not in the ring";
    EXPECT_EQ(WorkOf(test_support::Request({ 1, 2, 10 })), 3U + 2 * SEND_WORK);
    EXPECT_EQ(WorkOf(test_support::Request({ 1, 2 })), 2U) << "held off";
    EXPECT_EQ(SEND_WORK, 32U);
}

TEST_F(ArqWorkTest, AnEchoIsADatagramSentAndALineOfLogCostsAsMuch)
{
    const CapturedOutput output;
    EXPECT_EQ(WorkOf({ 0, 0, 0xAD, 0xE2 }), SEND_WORK);
    EXPECT_EQ(WorkOf({ 0, 0, 0xAD, 0xE3 }), SEND_WORK);
    EXPECT_EQ(WorkOf({ 1 }), 0U);
}

TEST_F(ArqWorkTest, WhatTheByteBudgetCutsOffIsNotLookedUp)
{
    MakeEngine({ .bitRate = BYTES_PER_MS });
    StoreAll(1, 8, 100);
    EXPECT_EQ(WorkOf(test_support::Request({ 1, 2, 3, 4, 5, 6, 7, 8 }, { 1, 200, 0 })), 3U + 2 * SEND_WORK);
}

TEST_F(ArqWorkTest, ClearingTheFiguresLeavesIt)
{
    EXPECT_EQ(WorkOf(test_support::Request({ 10, 11 })), 2U);
    m_pEngine->ClearStats();
    EXPECT_EQ(m_pEngine->Work(), 2U);
}

} // namespace
