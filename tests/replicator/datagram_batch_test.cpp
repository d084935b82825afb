#include "replicator/datagram_batch.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "support/loopback.h"
#include "support/system_hooks.h"

using test_support::Bytes;
using test_support::FailCalls;
using test_support::Net;
using test_support::Payload;
using test_support::Receiver;
using test_support::SystemCall;

namespace {

class DatagramBatchTest : public testing::Test {
protected:
    void Send(const Bytes& data) { m_sender.SendTo("127.0.0.1", m_socket.Port(), data); }
    void SendNumbers(uint8_t first, uint8_t count)
    {
        for (uint8_t i = 0; i < count; ++i)
            Send({ static_cast<uint8_t>(first + i) });
    }
    static Bytes BytesOf(const PacketBuffer& packet)
    {
        return Bytes(packet.Data(), packet.Data() + packet.Length());
    }
    // The first bytes of all that is handed on, and in whose buffers.
    Bytes HandOn(DatagramBatch& batch)
    {
        Bytes numbers;
        while (batch.HasNext()) {
            const DatagramBatch::Datagram datagram = batch.Next();
            numbers.push_back(*datagram.packet->Data());
            m_buffers.push_back(datagram.packet);
        }
        return numbers;
    }
    static Bytes Numbers(uint8_t first, uint8_t count)
    {
        Bytes numbers;
        for (uint8_t i = 0; i < count; ++i)
            numbers.push_back(static_cast<uint8_t>(first + i));
        return numbers;
    }

    Receiver m_socket { "127.0.0.1" };
    Receiver m_sender { "127.0.0.2" };
    std::unique_ptr<PacketBufferPool> m_pool = PacketBufferPool::createDefault(64);
    std::vector<PacketBuffer*> m_buffers;
};

TEST_F(DatagramBatchTest, NothingIsThereBeforeTheFirstReading)
{
    DatagramBatch batch(m_pool.get());
    EXPECT_FALSE(batch.HasNext());
    EXPECT_FALSE(batch.WasFull());
}

TEST_F(DatagramBatchTest, AReadingTakesWhatIsThereInItsOrderAndKnowsThatThereIsNoMore)
{
    DatagramBatch batch(m_pool.get());
    SendNumbers(1, 15);
    batch.Read(m_socket.Fd());
    EXPECT_EQ(batch.Count(), 15);
    EXPECT_FALSE(batch.WasFull());
    EXPECT_EQ(HandOn(batch), Numbers(1, 15));
}

// A request that claims more numbers than it has is read on behind its end.
TEST_F(DatagramBatchTest, WhatWasReadTogetherStandsInItsBufferOnlyWhenItIsHandedOn)
{
    for (uint32_t i = 0; i < 64; ++i)
        *m_pool->get()->Data() = 0xEE;
    DatagramBatch batch(m_pool.get());
    SendNumbers(1, 2);
    batch.Read(m_socket.Fd());
    ASSERT_EQ(batch.Count(), 2);
    const uint8_t* next = batch.Next().packet->Data() + PacketBufferPool::SLICE_BYTES;
    EXPECT_EQ(*next, 0xEE);
    EXPECT_EQ(batch.Next().packet->Data(), next);
    EXPECT_EQ(*next, 2);
}

TEST_F(DatagramBatchTest, AReadingTakes16AtMostAndThenThereMayBeMore)
{
    DatagramBatch batch(m_pool.get());
    SendNumbers(1, 16);
    batch.Read(m_socket.Fd());
    EXPECT_TRUE(batch.WasFull());
    EXPECT_EQ(HandOn(batch), Numbers(1, 16));
    SendNumbers(17, 20);
    batch.Read(m_socket.Fd());
    EXPECT_TRUE(batch.WasFull());
    EXPECT_EQ(HandOn(batch), Numbers(17, 16));
    batch.Read(m_socket.Fd());
    EXPECT_FALSE(batch.WasFull());
    EXPECT_EQ(HandOn(batch), Numbers(33, 4));
}

TEST_F(DatagramBatchTest, AnEmptySocketIsNotWaitedForAndNotFull)
{
    DatagramBatch batch(m_pool.get());
    batch.Read(m_socket.Fd());
    EXPECT_FALSE(batch.HasNext());
    EXPECT_FALSE(batch.WasFull());
    SendNumbers(1, 1);
    batch.Read(m_socket.Fd());
    EXPECT_EQ(HandOn(batch), Numbers(1, 1));
}

TEST_F(DatagramBatchTest, EachDatagramComesWithItsLengthAndItsSourceInNetworkOrder)
{
    DatagramBatch batch(m_pool.get());
    Receiver other("127.0.0.3");
    Send(Payload(1535));
    other.SendTo("127.0.0.1", m_socket.Port(), {});
    Send(Payload(9000)); // cut
    batch.Read(m_socket.Fd());
    ASSERT_EQ(batch.Count(), 3);
    DatagramBatch::Datagram datagram = batch.Next();
    EXPECT_EQ(BytesOf(*datagram.packet), Payload(1535));
    EXPECT_EQ(datagram.addressNet, Net("127.0.0.2"));
    EXPECT_EQ(datagram.portNet, htons(m_sender.Port()));
    datagram = batch.Next();
    EXPECT_EQ(datagram.packet->Length(), 0);
    EXPECT_EQ(datagram.addressNet, Net("127.0.0.3"));
    EXPECT_EQ(datagram.portNet, htons(other.Port()));
    EXPECT_EQ(BytesOf(*batch.Next().packet), Payload(1536));
}

// However many were read at a time: what one reading leaves empty is filled first by the next.
TEST_F(DatagramBatchTest, BuffersAreUsedInRingOrderWithoutAGap)
{
    constexpr uint32_t BUFFERS = 20;
    m_pool = PacketBufferPool::createDefault(BUFFERS);
    DatagramBatch batch(m_pool.get());
    for (const uint8_t count : Bytes { 1, 3, 16, 2, 15, 3 }) {
        batch.Read(-1); // what fails uses up no buffer
        SendNumbers(0, count);
        batch.Read(m_socket.Fd());
        (void)HandOn(batch);
    }
    ASSERT_EQ(m_buffers.size(), 40U);
    for (size_t i = 0; i + 1 < m_buffers.size(); ++i) {
        const ptrdiff_t step = m_buffers[i + 1] - m_buffers[i];
        EXPECT_TRUE(step == 1 || step == 1 - ptrdiff_t { BUFFERS }) << i << " " << step;
    }
}

TEST_F(DatagramBatchTest, APoolOfFewerBuffersThanWereReadServesThemInTurn)
{
    m_pool = PacketBufferPool::createDefault(4);
    DatagramBatch batch(m_pool.get());
    SendNumbers(1, 6);
    batch.Read(m_socket.Fd());
    EXPECT_EQ(HandOn(batch), Numbers(1, 6));
    EXPECT_EQ(m_buffers[4], m_buffers[0]);
}

TEST_F(DatagramBatchTest, AReadingThatFailsBringsNothing)
{
    DatagramBatch batch(m_pool.get());
    SendNumbers(1, 16);
    batch.Read(m_socket.Fd());
    EXPECT_EQ(HandOn(batch), Numbers(1, 16));
    batch.Read(-1);
    EXPECT_FALSE(batch.HasNext());
    EXPECT_FALSE(batch.WasFull());
    EXPECT_EQ(batch.Count(), 0);
}

TEST_F(DatagramBatchTest, AnInterruptedReadingLeavesWhatIsThere)
{
    DatagramBatch batch(m_pool.get());
    SendNumbers(1, 2);
    {
        const FailCalls interrupted(SystemCall::ReceiveTogether, EINTR);
        batch.Read(m_socket.Fd());
        EXPECT_EQ(interrupted.Count(), 1);
    }
    EXPECT_FALSE(batch.HasNext());
    batch.Read(m_socket.Fd());
    EXPECT_EQ(HandOn(batch), Numbers(1, 2));
}

TEST_F(DatagramBatchTest, WithoutACallForSeveralEachIsReadByItself)
{
    DatagramBatch batch(m_pool.get());
    Receiver other("127.0.0.3");
    const FailCalls missing(SystemCall::ReceiveTogether, ENOSYS, 1, 100);
    Send({ 1, 2, 3 });
    other.SendTo("127.0.0.1", m_socket.Port(), { 4 });
    for (const Bytes& expected : { Bytes { 1, 2, 3 }, Bytes { 4 } }) {
        batch.Read(m_socket.Fd());
        EXPECT_EQ(batch.Count(), 1);
        EXPECT_TRUE(batch.WasFull());
        const DatagramBatch::Datagram datagram = batch.Next();
        EXPECT_EQ(BytesOf(*datagram.packet), expected);
        EXPECT_EQ(datagram.addressNet, expected.size() == 1 ? Net("127.0.0.3") : Net("127.0.0.2"));
    }
    batch.Read(m_socket.Fd());
    EXPECT_FALSE(batch.WasFull());
    EXPECT_EQ(missing.Count(), 1) << "it is not tried again";
}

} // namespace
