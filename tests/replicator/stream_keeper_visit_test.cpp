// The looks that end silent streams. Time is simulated: what takes minutes takes no time.
#include "replicator/stream_keeper.h"

#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/stream_keeper_fixture.h"

namespace {

using namespace test_support;

class StreamKeeperVisitTest : public StreamKeeperTest {
protected:
    // The look that is due at `nowMs`, a multiple of the time between two looks; round after round.
    void VisitAt(uint32_t nowMs)
    {
        const uint32_t look = nowMs / StreamLife::VISIT_MS;
        m_keeper.VisitPlace(static_cast<int32_t>(look % StreamLife::PLACES), nowMs);
    }
    // The looks from `beginMs` on and before `endMs`.
    void VisitAll(uint32_t beginMs, uint32_t endMs)
    {
        for (uint32_t nowMs = beginMs; nowMs < endMs; nowMs += StreamLife::VISIT_MS)
            VisitAt(nowMs);
    }
    std::vector<int32_t> Places() const
    {
        std::vector<int32_t> places;
        const StreamTable::View view(m_keeper.Table());
        view.ForEach([&](const MyArqSendCB& stream) { places.push_back(stream.m_life.Place()); });
        return places;
    }
};

TEST_F(StreamKeeperVisitTest, AReceiverThatHasPingedStaysAndItsPingsAreCountedAnew)
{
    PingQuietly("127.0.0.2", PORT_A);
    CapturedOutput output;
    m_keeper.VisitPlace(0, 100000);
    EXPECT_EQ(output.Err(), "");
    ASSERT_EQ(Count(), 1);
    EXPECT_EQ(Stream(0).m_life.PingCount(), 0U);
    EXPECT_TRUE(Stream(0).m_bIsAlive);
}

TEST_F(StreamKeeperVisitTest, FiveSecondsOfSilenceEndAStreamWithOneLineAndAMillisecondLessDoesNot)
{
    PingQuietly("127.0.0.2", PORT_A, 7, 1000);
    CapturedOutput output;
    m_keeper.VisitPlace(0, 1000);
    m_keeper.VisitPlace(0, 5999);
    EXPECT_EQ(Count(), 1);
    m_keeper.VisitPlace(0, 6000);
    EXPECT_EQ(Count(), 0);
    EXPECT_EQ(output.StampedErr(), "<time> Stream suspended for 127.0.0.2\n");
}

TEST_F(StreamKeeperVisitTest, AReceiverThatHasPingedResumesAndTheLogSaysSo)
{
    PingQuietly("127.0.0.2", PORT_A, 0xAB);
    Stream(0).m_bIsAlive = false;
    CapturedOutput output;
    m_keeper.VisitPlace(0, 100);
    EXPECT_EQ(output.StampedErr(), "<time> Stream resumed for 127.0.0.2 ID:0x000000ab\n");
    EXPECT_TRUE(Stream(0).m_bIsAlive);
}

TEST_F(StreamKeeperVisitTest, ConfiguredStreamsAreNeverSuspended)
{
    Add("127.0.0.2");
    Add("127.0.0.3");
    CapturedOutput output;
    VisitAll(0, 3600000);
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(Count(), 2);
}

TEST_F(StreamKeeperVisitTest, NoOtherPlaceIsLookedAt)
{
    PingQuietly("127.0.0.2", PORT_A);
    for (int32_t place = 1; place < StreamLife::PLACES; ++place)
        m_keeper.VisitPlace(place, 100);
    EXPECT_EQ(Stream(0).m_life.PingCount(), 1U);
}

TEST_F(StreamKeeperVisitTest, AStreamKeepsItsPlaceWhenOthersAreRemovedAndMoved)
{
    for (uint32_t id = 1; id <= 4; ++id)
        PingQuietly("127.0.0.2", PORT_A, id);
    EXPECT_EQ(Places(), (std::vector<int32_t> { 0, 1, 2, 3 }));
    LeaveQuietly("127.0.0.2", 1); // the fourth moves into its entry
    EXPECT_EQ(Places(), (std::vector<int32_t> { 3, 1, 2 }));
    PingQuietly("127.0.0.2", PORT_A, 5);
    EXPECT_EQ(Places(), (std::vector<int32_t> { 3, 1, 2, 3 }));
}

TEST_F(StreamKeeperVisitTest, TwoSilentStreamsAtOnePlaceEndInOneLook)
{
    for (uint32_t id = 1; id <= 4; ++id)
        PingQuietly("127.0.0.2", PORT_A, id);
    LeaveQuietly("127.0.0.2", 1);
    PingQuietly("127.0.0.2", PORT_A, 5);
    ASSERT_EQ(Places(), (std::vector<int32_t> { 3, 1, 2, 3 }));
    CapturedOutput output;
    m_keeper.VisitPlace(3, 100);
    m_keeper.VisitPlace(3, 5000);
    EXPECT_EQ(CountOf(output.Err(), "Stream suspended"), 2U);
    EXPECT_FALSE(Has(4));
    EXPECT_FALSE(Has(5));
    EXPECT_EQ(Places().size(), 2U);
}

TEST_F(StreamKeeperVisitTest, FortyThatFallSilentTogetherAreAllEndedAfterFiveToTenSeconds)
{
    for (uint32_t offsetMs = 0; offsetMs < 5000; offsetMs += 700) {
        CapturedOutput output;
        for (uint32_t id = 1; id <= 40; ++id)
            Ping("127.0.0.2", PORT_A, id, offsetMs);
        VisitAll(offsetMs, offsetMs + 5000);
        EXPECT_EQ(Count(), 40);
        VisitAll(offsetMs + 5000, offsetMs + 10000);
        EXPECT_EQ(Count(), 0);
        EXPECT_EQ(CountOf(output.Err(), "Stream suspended"), 40U);
        m_keeper.DestroyRemoved();
    }
}

// Each stop message moves the last entry into another's place.
TEST_F(StreamKeeperVisitTest, FortyThatFallSilentWhileOthersLeaveAreAllEndedAfterFiveToTenSeconds)
{
    constexpr uint32_t LEAVING = 100;
    const CapturedOutput output;
    for (uint32_t i = 0; i < 10; ++i) {
        Ping("127.0.0.3", PORT_A, LEAVING + i);
        for (uint32_t id = 1; id <= 4; ++id)
            Ping("127.0.0.2", PORT_A, 4 * i + id);
    }
    ASSERT_EQ(Count(), 50);
    VisitAll(0, 5000);
    EXPECT_EQ(Count(), 50);
    for (uint32_t nowMs = 5000; nowMs < 10000; nowMs += StreamLife::VISIT_MS) {
        if (nowMs % 500 == 0)
            Leave("127.0.0.3", LEAVING + (nowMs - 5000) / 500);
        VisitAt(nowMs);
    }
    EXPECT_EQ(Count(), 0);
}

// A receiver that pinged once.
struct Silent {
    uint32_t id;
    uint32_t sinceMs;
};

// Ten minutes in which receivers join, leave by a stop message or fall silent, as the draw has it, while two
// others keep to their ping.
TEST_F(StreamKeeperVisitTest, WhoPingsInTimeStaysAndWhoFallsSilentGoesWhateverComesAndGoes)
{
    constexpr uint32_t OFTEN = 1; // every 2 s
    constexpr uint32_t SELDOM = 2; // every 4.9 s
    constexpr size_t MOST = 45;
    std::mt19937 random(20);
    std::vector<Silent> silent;
    uint32_t lastId = 1000;
    const CapturedOutput output;
    for (uint32_t nowMs = 0; nowMs < 600000; nowMs += StreamLife::VISIT_MS) {
        if (nowMs % 2000 == 300)
            Ping("127.0.0.2", PORT_A, OFTEN, nowMs);
        if (nowMs % 4900 == 0)
            Ping("127.0.0.2", PORT_A, SELDOM, nowMs);
        if (random() % 2 == 0 && silent.size() < MOST) {
            silent.push_back({ ++lastId, nowMs });
            Ping("127.0.0.3", PORT_A, lastId, nowMs);
        }
        if (random() % 4 == 0 && !silent.empty()) {
            const size_t leaving = random() % silent.size();
            Leave("127.0.0.3", silent[leaving].id);
            silent.erase(silent.begin() + static_cast<ptrdiff_t>(leaving));
        }
        VisitAt(nowMs);
        m_keeper.DestroyRemoved();

        ASSERT_TRUE(nowMs < 300 || Has(OFTEN)) << nowMs;
        ASSERT_TRUE(Has(SELDOM)) << nowMs;
        for (const Silent& one : silent) {
            ASSERT_TRUE(nowMs - one.sinceMs >= 5000 || Has(one.id)) << nowMs << " " << one.id;
            ASSERT_TRUE(nowMs - one.sinceMs < 10000 || !Has(one.id)) << nowMs << " " << one.id;
        }
        std::erase_if(silent, [&](const Silent& one) { return nowMs - one.sinceMs >= 10000; });
    }
    EXPECT_GT(lastId, 3000U) << "there was much coming and going";
}

} // namespace
