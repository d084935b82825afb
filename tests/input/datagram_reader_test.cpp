#include "input/datagram_reader.h"

#include <sys/syscall.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/allocation_hooks.h"
#include "support/loopback.h"
#include "support/refused_call.h"

namespace {

using namespace test_support;

constexpr uint8_t UNTOUCHED = 0xA5;

class DatagramReaderTest : public testing::Test {
protected:
    DatagramReaderTest() { LimitWait({ 0, 50000 }); }

    void LimitWait(const timeval& limit)
    {
        EXPECT_EQ(setsockopt(m_end.Fd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
    }

    // On return it waits at the socket: nothing on loopback takes a datagram's time.
    void Send(const Bytes& data) { m_sender.SendTo("127.0.0.2", m_end.Port(), data); }
    void Send(uint8_t first, int count)
    {
        for (int i = 0; i < count; ++i)
            Send(Numbered(static_cast<uint8_t>(first + i)));
    }
    static Bytes Numbered(uint8_t number) { return Payload(100U + number, number); }
    static Bytes BytesOf(const ReceivedDatagram& datagram)
    {
        return { datagram.data, datagram.data + datagram.length };
    }
    // That the reader holds these, from 0 on.
    void ExpectNumbered(uint8_t first, int count)
    {
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(BytesOf(m_reader.Datagram(i)), Numbered(static_cast<uint8_t>(first + i))) << i;
    }

    Receiver m_end { "127.0.0.2" };
    Receiver m_sender { "127.0.0.3" };
    Bytes m_slice = Bytes(PacketBufferPool::SLICE_BYTES, UNTOUCHED);
    DatagramReader m_reader { 32 };
};

TEST_F(DatagramReaderTest, OneIsReceivedIntoTheSliceWithItsSourceAndNothingBehindItIsTouched)
{
    Send(1, 2);
    ASSERT_EQ(m_reader.ReceiveOne(m_end.Fd(), m_slice.data()), 1);
    const ReceivedDatagram datagram = m_reader.Datagram(0);
    EXPECT_EQ(datagram.data, m_slice.data());
    EXPECT_EQ(BytesOf(datagram), Numbered(1));
    EXPECT_EQ(datagram.source.sin_addr.s_addr, Net("127.0.0.3"));
    EXPECT_EQ(ntohs(datagram.source.sin_port), m_sender.Port());
    EXPECT_EQ(Bytes(m_slice.begin() + datagram.length, m_slice.end()),
        Bytes(m_slice.size() - Numbered(1).size(), UNTOUCHED));
    EXPECT_TRUE(m_end.HasDatagram()) << "the second one waits";
}

TEST_F(DatagramReaderTest, ManyTakesWhatWaitsInItsOrderAndTheFirstIntoTheSlice)
{
    Send(1, 2);
    Receiver other("127.0.0.4");
    other.SendTo("127.0.0.2", m_end.Port(), Numbered(3));
    ASSERT_EQ(m_reader.ReceiveMany(m_end.Fd(), m_slice.data()), 3);
    ExpectNumbered(1, 3);
    EXPECT_EQ(m_reader.Datagram(0).data, m_slice.data());
    EXPECT_EQ(m_reader.Datagram(1).source.sin_addr.s_addr, Net("127.0.0.3"));
    EXPECT_EQ(m_reader.Datagram(2).source.sin_addr.s_addr, Net("127.0.0.4"));
    EXPECT_EQ(Bytes(m_slice.begin() + 101, m_slice.end()), Bytes(m_slice.size() - 101, UNTOUCHED))
        << "the others lie elsewhere";
}

TEST_F(DatagramReaderTest, NoMoreThan32AreReceivedTogether)
{
    Send(1, 40);
    ASSERT_EQ(m_reader.ReceiveMany(m_end.Fd(), m_slice.data()), 32);
    ExpectNumbered(1, 32);
    ASSERT_EQ(m_reader.ReceiveMany(m_end.Fd(), m_slice.data()), 8);
    ExpectNumbered(33, 8);
}

TEST_F(DatagramReaderTest, NoMoreThanAskedForAreReceivedTogether)
{
    for (const int32_t most : { 1, 3 }) {
        DatagramReader reader(most);
        EXPECT_EQ(reader.Most(), most);
        Send(1, 6);
        for (int32_t done = 0; done < 6; done += most) {
            ASSERT_EQ(reader.ReceiveMany(m_end.Fd(), m_slice.data()), most);
            for (int32_t i = 0; i < most; ++i)
                EXPECT_EQ(BytesOf(reader.Datagram(i)), Numbered(static_cast<uint8_t>(1 + done + i)));
        }
    }
}

TEST_F(DatagramReaderTest, WithTheFlagForItNobodyWaitsForADatagram)
{
    LimitWait({ 5, 0 });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(m_reader.ReceiveOne(m_end.Fd(), m_slice.data(), MSG_DONTWAIT), 0);
    EXPECT_EQ(m_reader.ReceiveMany(m_end.Fd(), m_slice.data(), MSG_DONTWAIT), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    Send(1, 2);
    EXPECT_EQ(m_reader.ReceiveMany(m_end.Fd(), m_slice.data(), MSG_DONTWAIT), 2);
}

TEST_F(DatagramReaderTest, WhatIsPutIntoItsOwnSliceStaysAndWhatIsPutIntoAnotherOneIsCopied)
{
    Send(1, 2);
    ASSERT_EQ(m_reader.ReceiveMany(m_end.Fd(), m_slice.data()), 2);
    m_reader.Datagram(0).PutInto(m_slice.data());
    EXPECT_EQ(BytesOf(m_reader.Datagram(0)), Numbered(1));
    Bytes other(m_slice.size(), UNTOUCHED);
    m_reader.Datagram(1).PutInto(other.data());
    Bytes expected = Numbered(2);
    expected.resize(other.size(), UNTOUCHED);
    EXPECT_EQ(other, expected);
}

TEST_F(DatagramReaderTest, ADatagramLongerThanASliceIsCutWhereverItStands)
{
    for (const size_t length : { 1536U, 1537U, 1536U, 9000U })
        Send(Payload(length));
    ASSERT_EQ(m_reader.ReceiveMany(m_end.Fd(), m_slice.data()), 4);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(BytesOf(m_reader.Datagram(i)), Payload(1536)) << i;
    Send(Payload(1537));
    ASSERT_EQ(m_reader.ReceiveOne(m_end.Fd(), m_slice.data()), 1);
    EXPECT_EQ(BytesOf(m_reader.Datagram(0)), Payload(1536));
}

TEST_F(DatagramReaderTest, AnEmptyDatagramIsOneOfLengthZero)
{
    Send({});
    Send(1, 1);
    Send({});
    ASSERT_EQ(m_reader.ReceiveMany(m_end.Fd(), m_slice.data()), 3);
    EXPECT_EQ(m_reader.Datagram(0).length, 0);
    EXPECT_EQ(BytesOf(m_reader.Datagram(1)), Numbered(1));
    EXPECT_EQ(m_reader.Datagram(2).length, 0);
    Send({});
    ASSERT_EQ(m_reader.ReceiveOne(m_end.Fd(), m_slice.data()), 1);
    EXPECT_EQ(m_reader.Datagram(0).length, 0);
}

TEST_F(DatagramReaderTest, WithoutADatagramBothEndWithTheReceiveTimeOut)
{
    EXPECT_EQ(m_reader.ReceiveOne(m_end.Fd(), m_slice.data()), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(m_reader.ReceiveMany(m_end.Fd(), m_slice.data()), 0);
    EXPECT_EQ(errno, EAGAIN);
    Send(1, 2);
    EXPECT_EQ(m_reader.ReceiveMany(m_end.Fd(), m_slice.data()), 2)
        << "a wait without a datagram changes nothing";
}

TEST_F(DatagramReaderTest, WhereTheCallForManyIsRefusedTheyAreReceivedOneByOne)
{
    for (const int error : { ENOSYS, EPERM }) {
        DatagramReader reader(32);
        Send(1, 3);
        std::thread([&] {
            RefuseCallForGood(SYS_recvmmsg, error);
            EXPECT_EQ(reader.Most(), 32);
            for (uint8_t number = 1; number <= 3; ++number) {
                ASSERT_EQ(reader.ReceiveMany(m_end.Fd(), m_slice.data()), 1) << error;
                EXPECT_EQ(BytesOf(reader.Datagram(0)), Numbered(number));
                EXPECT_EQ(reader.Most(), 1);
            }
        }).join();
    }
}

TEST_F(DatagramReaderTest, AfterAnotherFailureManyAreReceivedTogetherAgain)
{
    Send(1, 3);
    EXPECT_EQ(m_reader.ReceiveMany(-1, m_slice.data()), 0);
    EXPECT_EQ(m_reader.ReceiveOne(-1, m_slice.data()), 0);
    EXPECT_EQ(m_reader.ReceiveMany(m_end.Fd(), nullptr), 0) << "EFAULT, and the datagram is gone";
    EXPECT_EQ(m_reader.ReceiveMany(m_end.Fd(), m_slice.data()), 2);
    ExpectNumbered(2, 2);
}

TEST_F(DatagramReaderTest, WithoutMemoryForTheOthersTheyAreReceivedOneByOne)
{
    Send(1, 2);
    const FailNthAllocation failure(1);
    DatagramReader reader(32);
    ASSERT_TRUE(failure.Fired());
    EXPECT_EQ(reader.Most(), 1);
    for (uint8_t number = 1; number <= 2; ++number) {
        ASSERT_EQ(reader.ReceiveMany(m_end.Fd(), m_slice.data()), 1);
        EXPECT_EQ(BytesOf(reader.Datagram(0)), Numbered(number));
    }
}

} // namespace
