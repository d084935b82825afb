#include "arq/arq_ring.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "support/allocation_hooks.h"

using test_support::AllocationCount;
using test_support::FailNthAllocation;

namespace {

class ArqRingTest : public testing::Test {
protected:
    bool m_bOk = true;
    ArqRing m_ring { m_bOk, 4 };
    PacketBuffer m_packets[8] {};
};

TEST_F(ArqRingTest, IsEmptyAtFirst)
{
    EXPECT_TRUE(m_bOk);
    EXPECT_EQ(m_ring.Size(), 4U);
    for (uint16_t seq = 0; seq < 4; ++seq) {
        EXPECT_EQ(m_ring.Slot(seq).packet.Load(), nullptr);
        EXPECT_EQ(m_ring.Slot(seq).resendNotBeforeTicks, 0U);
        EXPECT_EQ(m_ring.Slot(seq).timestampTicks, 0U);
        EXPECT_FALSE(m_ring.IsRetransmitted(seq));
    }
}

TEST_F(ArqRingTest, TheIndexIsTheSequenceNumberAndTheMask)
{
    EXPECT_EQ(m_ring.Index(0), 0U);
    EXPECT_EQ(m_ring.Index(3), 3U);
    EXPECT_EQ(m_ring.Index(4), 0U);
    EXPECT_EQ(m_ring.Index(65535), 3U);
    bool ok = true;
    EXPECT_EQ(ArqRing(ok, 1).Index(65535), 0U);
    EXPECT_EQ(ArqRing(ok, 65536).Index(65535), 65535U);
    EXPECT_EQ(ArqRing(ok, 131072).Index(65535), 65535U);
}

TEST_F(ArqRingTest, StoringClearsHoldOffAndFlagOfWhatWasThere)
{
    m_ring.Store(1, &m_packets[1], 100);
    m_ring.Slot(1).resendNotBeforeTicks = 9100;
    m_ring.SetRetransmitted(1);
    m_ring.Store(5, &m_packets[5], 0xFFFFFFFF);
    EXPECT_EQ(m_ring.Slot(5).packet.Load(), &m_packets[5]);
    EXPECT_EQ(m_ring.Slot(5).resendNotBeforeTicks, 0U);
    EXPECT_EQ(m_ring.Slot(5).timestampTicks, 0xFFFFFFFFU);
    EXPECT_FALSE(m_ring.IsRetransmitted(5));
    EXPECT_EQ(&m_ring.Slot(1), &m_ring.Slot(5));
}

TEST_F(ArqRingTest, SixOfFourLeaveTheLastFour)
{
    for (uint16_t seq = 1; seq <= 6; ++seq)
        m_ring.Store(seq, &m_packets[seq], seq);
    EXPECT_EQ(m_ring.Slot(0).packet.Load(), &m_packets[4]);
    EXPECT_EQ(m_ring.Slot(1).packet.Load(), &m_packets[5]);
    EXPECT_EQ(m_ring.Slot(2).packet.Load(), &m_packets[6]);
    EXPECT_EQ(m_ring.Slot(3).packet.Load(), &m_packets[3]);
}

TEST_F(ArqRingTest, NeighboursAreLeftAloneAcrossTheWrapOfTheSequence)
{
    m_ring.Store(65535, &m_packets[0], 1);
    m_ring.Store(0, &m_packets[1], 2);
    m_ring.SetRetransmitted(65535);
    EXPECT_EQ(m_ring.Slot(65535).packet.Load(), &m_packets[0]);
    EXPECT_EQ(m_ring.Slot(0).packet.Load(), &m_packets[1]);
    EXPECT_TRUE(m_ring.IsRetransmitted(65535));
    EXPECT_FALSE(m_ring.IsRetransmitted(0));
}

TEST_F(ArqRingTest, ClearEmptiesEverySlot)
{
    for (uint16_t seq = 0; seq < 4; ++seq) {
        m_ring.Store(seq, &m_packets[seq], 7);
        m_ring.Slot(seq).resendNotBeforeTicks = 8;
        m_ring.SetRetransmitted(seq);
    }
    m_ring.Clear();
    for (uint16_t seq = 0; seq < 4; ++seq) {
        EXPECT_EQ(m_ring.Slot(seq).packet.Load(), nullptr);
        EXPECT_EQ(m_ring.Slot(seq).resendNotBeforeTicks, 0U);
        EXPECT_EQ(m_ring.Slot(seq).timestampTicks, 0U);
        EXPECT_FALSE(m_ring.IsRetransmitted(seq));
    }
}

// A member that logs its name when it is written, by assignment or by Store.
struct LoggedMember {
    void operator=(uint32_t /*value*/) { log += name; }
    void Store(PacketBuffer* /*packet*/) { log += name; }
    std::string& log;
    const char* name;
};

struct LoggedSlot {
    LoggedMember packet;
    LoggedMember resendNotBeforeTicks;
    LoggedMember timestampTicks;
};

// A reader that sees the new packet must see nothing of the one before it.
TEST(FillSlot, PublishesThePointerLast)
{
    std::string log;
    LoggedSlot slot { { log, " packet" }, { log, " resendNotBefore" }, { log, " timestamp" } };
    LoggedMember flag { log, " flag" };
    FillSlot(slot, flag, nullptr, 7);
    EXPECT_EQ(log, " resendNotBefore timestamp flag packet");
}

TEST(ArqRing, AnyFailedAllocationClearsTheFlag)
{
    constexpr int ALLOCATIONS = 2;
    for (int n = 1; n <= ALLOCATIONS; ++n) {
        bool ok = true;
        const FailNthAllocation failure(n);
        const ArqRing ring(ok, 16);
        EXPECT_FALSE(ok) << "allocation " << n;
        EXPECT_TRUE(failure.Fired());
    }
    const AllocationCount allocations;
    bool ok = true;
    const ArqRing ring(ok, 16);
    EXPECT_TRUE(ok);
    EXPECT_EQ(allocations.Count(), static_cast<uint64_t>(ALLOCATIONS));
}

TEST(ArqRing, OfSizeZeroHasNoSlotToClear)
{
    bool ok = true;
    ArqRing ring(ok, 0);
    ring.Clear();
    EXPECT_TRUE(ok);
    EXPECT_EQ(ring.Size(), 0U);
}

} // namespace
