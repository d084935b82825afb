// From when on a packet is too old to be sent again.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "support/engine_fixture.h"

using test_support::EngineTest;
using test_support::Seqs;
using test_support::TestPacket;

namespace {

class ArqAgeTest : public EngineTest {};

TEST_F(ArqAgeTest, APacketSent700MsAgoIsExpiredItsSlotEmptiedAndCounted)
{
    Store(5);
    m_clock.Advance(700 * 90);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 0U);
    EXPECT_EQ(Stats().expired, 1U);
    EXPECT_EQ(Stats().notInBuffer, 0U);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(Stats().expired, 1U);
    EXPECT_EQ(Stats().notInBuffer, 1U);
}

TEST_F(ArqAgeTest, APacketExpiresAtExactlyTheMaximumAge)
{
    struct {
        uint32_t age;
        bool isSent;
    } const cases[] = { { 0, true }, { MAX_AGE_TICKS - 1, true }, { MAX_AGE_TICKS, false },
        { MAX_AGE_TICKS + 1, false } };
    for (const uint32_t sentAt : { NOW, 0U, 0xFFFFFFFFU - 1000, 0x7FFFFFF0U }) {
        for (const auto& c : cases) {
            MakeEngine();
            m_clock.Set(sentAt + c.age);
            Store(5, sentAt);
            EXPECT_EQ(Ask({ 5 }), 1U);
            EXPECT_EQ(m_callback.Count(), c.isSent ? 1U : 0U) << c.age << " after " << sentAt;
            EXPECT_EQ(Stats().expired, c.isSent ? 0U : 1U) << c.age << " after " << sentAt;
        }
    }
}

// The clock is read between the look at the slot and the verdict on its age.
TEST_F(ArqAgeTest, ExpiryDoesNotForgetANewerPacketThatWasStoredMeanwhile)
{
    constexpr uint16_t NEWER = 5 + RING_SIZE;
    Store(5);
    m_clock.Advance(MAX_AGE_TICKS);
    m_clock.AtNextReading([this] { Store(NEWER, NOW); });
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(Stats().expired, 1U);
    EXPECT_EQ(Ask({ NEWER }), 1U);
    EXPECT_EQ(Stats().notInBuffer, 0U);
    EXPECT_EQ(Stats().expired, 2U);
}

TEST_F(ArqAgeTest, ATimestampAheadOfTheClockIsNotExpired)
{
    Store(5, NOW + 1000);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
}

TEST_F(ArqAgeTest, TheMaximumAgeFollowsTheWindow)
{
    Store(5);
    Store(6);
    m_clock.Advance(MAX_AGE_TICKS);
    EXPECT_EQ(Ask({ 5 }, { 3, 200, 0 }), 1U); // 800 ms
    EXPECT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(Ask({ 6 }, { 1, 200, 0 }), 1U); // 400 ms
    EXPECT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(Stats().expired, 1U);
}

TEST_F(ArqAgeTest, AWindowOfZeroExpiresEverything)
{
    Store(5);
    EXPECT_EQ(Ask({ 5 }, { 0, 0, 0 }), 1U);
    EXPECT_EQ(m_callback.Count(), 0U);
    EXPECT_EQ(Stats().expired, 1U);
}

TEST_F(ArqAgeTest, ExpiredNumbersDoNotEndTheRequest)
{
    Store(5, NOW - MAX_AGE_TICKS);
    Store(6);
    EXPECT_EQ(Ask({ 5, 6 }), 1U);
    EXPECT_EQ(SentSeqs(), Seqs { 6 });
    EXPECT_EQ(Stats().expired, 1U);
}

// The hold-off comes first: a packet that is held off is not looked at for its age.
TEST_F(ArqAgeTest, AHeldOffPacketIsNotExpired)
{
    Store(5);
    m_clock.Advance(MAX_AGE_TICKS - 1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
    m_clock.Advance(HOLD_OFF_TICKS - 1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(Stats().expired, 0U);
    m_clock.Advance(1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(Stats().expired, 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
}

// The stored time is that of StoreSent: what stands in the header later does not count.
TEST_F(ArqAgeTest, TheAgeIsThatOfTheStoredTimestamp)
{
    TestPacket& packet = Store(5);
    std::fill_n(packet.Data() + 4, 4, uint8_t { 0 });
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
}

} // namespace
