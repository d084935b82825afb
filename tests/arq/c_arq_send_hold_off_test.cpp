// How soon the same packet may be sent again.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>

#include "support/engine_fixture.h"

using test_support::EngineTest;
using test_support::RequestWindow;

namespace {

// A callback that does something while it "sends".
class ActingCallback : public CArqSendCB {
public:
    int SendData(PacketBuffer* packet) override
    {
        m_action(packet);
        return 1;
    }
    std::function<void(PacketBuffer*)> m_action;
};

class ArqHoldOffTest : public EngineTest {};

TEST_F(ArqHoldOffTest, TwoRequestsWithin100MsYieldOneRetransmission)
{
    Store(5);
    EXPECT_EQ(Ask({ 5 }), 1U);
    m_clock.Advance(HOLD_OFF_TICKS - 1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
    const ArqSendStats stats = Stats();
    EXPECT_EQ(stats.retransmitted, 1U);
    EXPECT_EQ(stats.notInBuffer + stats.overBudget + stats.expired, 0U);
    m_clock.Advance(1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 2U);
    EXPECT_EQ(Stats().retransmitted, 2U);
}

TEST_F(ArqHoldOffTest, ANumberListedTwiceIsSentOnce)
{
    Store(5);
    EXPECT_EQ(Ask({ 5, 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
}

TEST_F(ArqHoldOffTest, EachResendHoldsOffTheNext)
{
    Store(5);
    for (uint32_t i = 1; i <= 5; ++i) {
        EXPECT_EQ(Ask({ 5 }), 1U);
        EXPECT_EQ(Ask({ 5 }), 1U);
        EXPECT_EQ(m_callback.Count(), i);
        m_clock.Advance(HOLD_OFF_TICKS);
    }
}

TEST_F(ArqHoldOffTest, TheHoldOffIsTheSameWhateverWindowTheReceiverSends)
{
    for (const RequestWindow window : { RequestWindow { 5, 1000, 0 }, RequestWindow { 5, 1, 30000 } }) {
        MakeEngine();
        m_clock.Set(NOW);
        Store(5);
        EXPECT_EQ(Ask({ 5 }, window), 1U);
        EXPECT_EQ(m_pEngine->HoldOffTicks(), HOLD_OFF_TICKS);
        m_clock.Advance(HOLD_OFF_TICKS - 1);
        EXPECT_EQ(Ask({ 5 }, window), 1U);
        EXPECT_EQ(m_callback.Count(), 1U);
        m_clock.Advance(1);
        EXPECT_EQ(Ask({ 5 }, window), 1U);
        EXPECT_EQ(m_callback.Count(), 2U);
    }
}

TEST_F(ArqHoldOffTest, TheHoldOffHoldsAcrossTheWrapOfTheClock)
{
    const uint32_t nearWrap = 0xFFFFFFFF - 100;
    m_clock.Set(nearWrap);
    Store(5, nearWrap);
    EXPECT_EQ(Ask({ 5 }), 1U);
    m_clock.Advance(HOLD_OFF_TICKS - 1); // the clock has wrapped
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
    m_clock.Advance(1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 2U);
}

// A fresh slot's "not before" is 0, which lies ahead for half of all clock readings.
TEST_F(ArqHoldOffTest, TheFirstResendIsNeverHeldOff)
{
    for (const uint32_t now : { 0U, 1U, 0x7FFFFFFFU, 0x80000000U, 0x80000001U, 0xFFFFFFFFU }) {
        MakeEngine();
        m_clock.Set(now);
        Store(5, now);
        EXPECT_EQ(Ask({ 5 }), 1U);
        EXPECT_EQ(m_callback.Count(), 1U) << now;
    }
}

TEST_F(ArqHoldOffTest, TheHoldOffIsCountedFromTheEndOfTheSending)
{
    ActingCallback callback;
    int sent = 0;
    callback.m_action = [&](PacketBuffer* /*packet*/) {
        ++sent;
        m_clock.Advance(500);
    };
    MakeEngine({ .callback = &callback });
    Store(5);
    EXPECT_EQ(Ask({ 5 }), 1U);
    m_clock.Set(NOW + 500 + HOLD_OFF_TICKS - 1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(sent, 1);
    m_clock.Set(NOW + 500 + HOLD_OFF_TICKS);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(sent, 2);
}

TEST_F(ArqHoldOffTest, ARefusedSendCountsAsRetransmittedAndHoldsOff)
{
    m_callback.SetResult(0);
    Store(5);
    EXPECT_EQ(Ask({ 5, 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(Stats().retransmitted, 1U);
}

} // namespace
