#include "pacing/packet_ring.h"

#include <array>
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "input/packet_buffer.h"
#include "support/allocation_hooks.h"

namespace {

class PacketRingTest : public testing::Test {
protected:
    // A packet of that many bytes in one piece.
    PacketBuffer* Packet(size_t index, int32_t length = 100)
    {
        m_packets[index].partCount = 1;
        m_packets[index].SetLength(length);
        return &m_packets[index];
    }

    std::array<PacketBuffer, 5> m_packets {};
    bool m_ok = true;
    PacketRing m_ring { m_ok, 3 };
};

TEST_F(PacketRingTest, PacketsComeOutInTheOrderTheyWentInAlsoAcrossTheWrap)
{
    for (int round = 0; round < 4; ++round) {
        EXPECT_TRUE(m_ring.Push(Packet(0)));
        EXPECT_TRUE(m_ring.Push(Packet(1)));
        EXPECT_EQ(m_ring.Pop(), &m_packets[0]);
        EXPECT_EQ(m_ring.Pop(), &m_packets[1]);
        EXPECT_EQ(m_ring.Pop(), nullptr);
    }
    EXPECT_TRUE(m_ok);
}

TEST_F(PacketRingTest, AFullRingRefusesAndIsLeftAsItWas)
{
    for (size_t i = 0; i < 3; ++i)
        EXPECT_TRUE(m_ring.Push(Packet(i)));
    EXPECT_FALSE(m_ring.Push(Packet(3)));
    EXPECT_EQ(m_ring.Count(), 3);
    EXPECT_EQ(m_ring.Bytes(), 300);
    EXPECT_EQ(m_ring.Pop(), &m_packets[0]);
    EXPECT_TRUE(m_ring.Push(Packet(3)));
    for (size_t i = 1; i < 4; ++i)
        EXPECT_EQ(m_ring.Pop(), &m_packets[i]);
}

TEST_F(PacketRingTest, PeekLeavesTheOldestPacketInItsPlace)
{
    EXPECT_EQ(m_ring.Peek(), nullptr);
    EXPECT_TRUE(m_ring.Push(Packet(0)));
    EXPECT_TRUE(m_ring.Push(Packet(1)));
    EXPECT_EQ(m_ring.Peek(), &m_packets[0]);
    EXPECT_EQ(m_ring.Peek(), &m_packets[0]);
    EXPECT_EQ(m_ring.Count(), 2);
}

TEST_F(PacketRingTest, BytesAreTotalLengthsLessHeaderBytes)
{
    m_ring.SetHeaderBytes(12);
    EXPECT_TRUE(m_ring.Push(Packet(0, 1328)));
    PacketBuffer* twoPieces = Packet(1, 12);
    twoPieces->partCount = 2;
    twoPieces->partLengths[1] = 1000;
    EXPECT_TRUE(m_ring.Push(twoPieces));
    EXPECT_EQ(m_ring.Bytes(), 1316 + 1000);
    (void)m_ring.Pop();
    EXPECT_EQ(m_ring.Bytes(), 1000);
    (void)m_ring.Pop();
    EXPECT_EQ(m_ring.Bytes(), 0);
}

TEST_F(PacketRingTest, APacketWithAWrongPartCountHasNoLength)
{
    m_ring.SetHeaderBytes(12);
    Packet(0)->partCount = 5;
    Packet(1)->partCount = 0;
    EXPECT_TRUE(m_ring.Push(&m_packets[0]));
    EXPECT_TRUE(m_ring.Push(&m_packets[1]));
    EXPECT_EQ(m_ring.Bytes(), -24);
}

TEST_F(PacketRingTest, WithTheDuplicateCheckAQueuedPacketIsNotPutInAgain)
{
    EXPECT_TRUE(m_ring.Push(Packet(4)));
    (void)m_ring.Pop(); // so that the queued ones lie across the wrap
    for (size_t i = 0; i < 3; ++i)
        EXPECT_TRUE(m_ring.Push(Packet(i), true));
    for (size_t i = 0; i < 3; ++i)
        EXPECT_TRUE(m_ring.Push(Packet(i), true)) << "also when the ring is full";
    EXPECT_FALSE(m_ring.Push(Packet(3), true));
    EXPECT_EQ(m_ring.Count(), 3);
    EXPECT_EQ(m_ring.Bytes(), 300);
    EXPECT_EQ(m_ring.Pop(), &m_packets[0]);
    EXPECT_TRUE(m_ring.Push(Packet(0), true)) << "what was taken is no duplicate";
    EXPECT_EQ(m_ring.Count(), 3);
}

TEST_F(PacketRingTest, WithoutTheDuplicateCheckAPacketMayBeQueuedTwice)
{
    EXPECT_TRUE(m_ring.Push(Packet(0)));
    EXPECT_TRUE(m_ring.Push(Packet(0)));
    EXPECT_EQ(m_ring.Count(), 2);
}

TEST_F(PacketRingTest, DiscardTakesEverythingOut)
{
    for (size_t i = 0; i < 3; ++i)
        EXPECT_TRUE(m_ring.Push(Packet(i)));
    m_ring.Discard();
    EXPECT_EQ(m_ring.Count(), 0);
    EXPECT_EQ(m_ring.Bytes(), 0);
    EXPECT_EQ(m_ring.Peek(), nullptr);
    EXPECT_TRUE(m_ring.Push(Packet(3)));
    EXPECT_EQ(m_ring.Pop(), &m_packets[3]);
}

TEST_F(PacketRingTest, WithoutMemoryTheRingIsBothFullAndEmpty)
{
    bool ok = true;
    const test_support::FailNthAllocation failing(1);
    PacketRing ring(ok, 3);
    EXPECT_FALSE(ok);
    EXPECT_FALSE(ring.Push(Packet(0)));
    EXPECT_FALSE(ring.Push(Packet(0), true));
    EXPECT_EQ(ring.Pop(), nullptr);
    EXPECT_EQ(ring.Peek(), nullptr);
}

TEST_F(PacketRingTest, EveryPacketPushedByOneThreadIsPoppedOnceByTwo)
{
    constexpr int PACKETS = 20000;
    std::atomic<int> popped { 0 };
    std::atomic<bool> isOver { false };
    std::thread timer([&] {
        while (!isOver || m_ring.Peek() != nullptr) {
            if (m_ring.Peek() != nullptr && m_ring.Pop() != nullptr)
                ++popped;
        }
    });
    for (int i = 0; i < PACKETS; ++i) {
        while (!m_ring.Push(Packet(0))) {
            if (m_ring.Pop() != nullptr)
                ++popped;
        }
    }
    isOver = true;
    timer.join();
    EXPECT_EQ(popped, PACKETS);
    EXPECT_EQ(m_ring.Bytes(), 0);
}

} // namespace
