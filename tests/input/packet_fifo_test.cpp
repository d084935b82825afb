#include "input/packet_fifo.h"

#include <array>

#include <gtest/gtest.h>

#include "input/packet_buffer.h"
#include "support/allocation_hooks.h"

namespace {

class PacketFifoTest : public testing::Test {
protected:
    PacketBuffer* Packet(size_t i) { return &m_packets[i]; }
    void Put(size_t first, size_t last)
    {
        for (size_t i = first; i <= last; ++i)
            EXPECT_TRUE(m_fifo.Put(Packet(i)));
    }

    bool m_ok = true;
    PacketFifo m_fifo { m_ok, 3 };
    std::array<PacketBuffer, 100> m_packets;
};

TEST_F(PacketFifoTest, StartsEmpty)
{
    EXPECT_TRUE(m_ok);
    EXPECT_TRUE(m_fifo.IsEmpty());
    EXPECT_FALSE(m_fifo.IsFull());
    EXPECT_EQ(m_fifo.Count(), 0);
    EXPECT_EQ(m_fifo.Front(), nullptr);
    EXPECT_EQ(m_fifo.Get(), nullptr);
}

TEST_F(PacketFifoTest, TakesAsManyAsItHasPlaces)
{
    Put(0, 1);
    EXPECT_FALSE(m_fifo.IsFull());
    Put(2, 2);
    EXPECT_TRUE(m_fifo.IsFull());
    EXPECT_FALSE(m_fifo.Put(Packet(3)));
    EXPECT_EQ(m_fifo.Count(), 3);
    EXPECT_FALSE(m_fifo.Contains(Packet(3)));
}

TEST_F(PacketFifoTest, GivesBackInOrderAcrossTheWrap)
{
    Put(0, 1);
    for (size_t i = 0; i + 2 < m_packets.size(); ++i) {
        Put(i + 2, i + 2);
        EXPECT_TRUE(m_fifo.IsFull());
        EXPECT_EQ(m_fifo.Front(), Packet(i));
        EXPECT_EQ(m_fifo.Get(), Packet(i));
        EXPECT_EQ(m_fifo.Count(), 2);
    }
}

TEST_F(PacketFifoTest, ContainsWhatIsInItAlsoAcrossTheWrap)
{
    Put(0, 2);
    EXPECT_EQ(m_fifo.Get(), Packet(0));
    EXPECT_EQ(m_fifo.Get(), Packet(1));
    Put(3, 4);
    EXPECT_FALSE(m_fifo.Contains(Packet(0)));
    EXPECT_FALSE(m_fifo.Contains(Packet(1)));
    for (size_t i = 2; i <= 4; ++i)
        EXPECT_TRUE(m_fifo.Contains(Packet(i))) << i;
}

TEST_F(PacketFifoTest, ANullTakesAPlaceLikeAnyOther)
{
    EXPECT_TRUE(m_fifo.Put(nullptr));
    Put(0, 0);
    EXPECT_EQ(m_fifo.Count(), 2);
    EXPECT_EQ(m_fifo.Get(), nullptr);
    EXPECT_EQ(m_fifo.Get(), Packet(0));
}

TEST_F(PacketFifoTest, WithoutMemoryItIsBothFullAndEmpty)
{
    const test_support::FailNthAllocation failure(1);
    PacketFifo fifo(m_ok, 3);
    EXPECT_TRUE(failure.Fired());
    EXPECT_FALSE(m_ok);
    EXPECT_TRUE(fifo.IsFull());
    EXPECT_TRUE(fifo.IsEmpty());
    EXPECT_FALSE(fifo.Put(Packet(0)));
    EXPECT_EQ(fifo.Get(), nullptr);
}

} // namespace
