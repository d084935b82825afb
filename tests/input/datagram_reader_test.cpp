#include "input/datagram_reader.h"

#include <sys/syscall.h>
#include <sys/time.h>

#include <cerrno>
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
    DatagramReaderTest()
    {
        const timeval limit { 0, 50000 };
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
    DatagramReader m_reader { m_end.Fd() };
};

TEST_F(DatagramReaderTest, OneIsReceivedIntoTheSliceWithItsSourceAndNothingBehindItIsTouched)
{
    Send(1, 2);
    ASSERT_EQ(m_reader.ReceiveOne(m_slice.data()), 1);
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
    ASSERT_EQ(m_reader.ReceiveMany(m_slice.data()), 3);
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
    ASSERT_EQ(m_reader.ReceiveMany(m_slice.data()), 32);
    ExpectNumbered(1, 32);
    ASSERT_EQ(m_reader.ReceiveMany(m_slice.data()), 8);
    ExpectNumbered(33, 8);
}

TEST_F(DatagramReaderTest, ADatagramLongerThanASliceIsCutWhereverItStands)
{
    for (const size_t length : { 1536U, 1537U, 1536U, 9000U })
        Send(Payload(length));
    ASSERT_EQ(m_reader.ReceiveMany(m_slice.data()), 4);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(BytesOf(m_reader.Datagram(i)), Payload(1536)) << i;
    Send(Payload(1537));
    ASSERT_EQ(m_reader.ReceiveOne(m_slice.data()), 1);
    EXPECT_EQ(BytesOf(m_reader.Datagram(0)), Payload(1536));
}

TEST_F(DatagramReaderTest, AnEmptyDatagramIsOneOfLengthZero)
{
    Send({});
    Send(1, 1);
    Send({});
    ASSERT_EQ(m_reader.ReceiveMany(m_slice.data()), 3);
    EXPECT_EQ(m_reader.Datagram(0).length, 0);
    EXPECT_EQ(BytesOf(m_reader.Datagram(1)), Numbered(1));
    EXPECT_EQ(m_reader.Datagram(2).length, 0);
    Send({});
    ASSERT_EQ(m_reader.ReceiveOne(m_slice.data()), 1);
    EXPECT_EQ(m_reader.Datagram(0).length, 0);
}

TEST_F(DatagramReaderTest, WithoutADatagramBothEndWithTheReceiveTimeOut)
{
    EXPECT_EQ(m_reader.ReceiveOne(m_slice.data()), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(m_reader.ReceiveMany(m_slice.data()), 0);
    EXPECT_EQ(errno, EAGAIN);
    Send(1, 2);
    EXPECT_EQ(m_reader.ReceiveMany(m_slice.data()), 2) << "a wait without a datagram changes nothing";
}

// After one failed call the datagrams come one by one, and none is missing.
TEST_F(DatagramReaderTest, WhereTheCallForManyIsRefusedTheyAreReceivedOneByOne)
{
    for (const int error : { ENOSYS, EPERM }) {
        DatagramReader reader(m_end.Fd());
        Send(1, 3);
        std::thread([&] {
            RefuseCallForGood(SYS_recvmmsg, error);
            EXPECT_EQ(reader.ReceiveMany(m_slice.data()), 0);
            for (uint8_t number = 1; number <= 3; ++number) {
                ASSERT_EQ(reader.ReceiveMany(m_slice.data()), 1) << error;
                EXPECT_EQ(BytesOf(reader.Datagram(0)), Numbered(number));
            }
        }).join();
    }
}

TEST_F(DatagramReaderTest, AfterAnotherFailureManyAreReceivedTogetherAgain)
{
    Send(1, 3);
    DatagramReader noSocket(-1);
    EXPECT_EQ(noSocket.ReceiveMany(m_slice.data()), 0);
    EXPECT_EQ(noSocket.ReceiveOne(m_slice.data()), 0);
    EXPECT_EQ(m_reader.ReceiveMany(nullptr), 0) << "EFAULT, and the datagram is gone";
    EXPECT_EQ(m_reader.ReceiveMany(m_slice.data()), 2);
    ExpectNumbered(2, 2);
}

TEST_F(DatagramReaderTest, WithoutMemoryForTheOthersTheyAreReceivedOneByOne)
{
    Send(1, 2);
    const FailNthAllocation failure(1);
    DatagramReader reader(m_end.Fd());
    ASSERT_TRUE(failure.Fired());
    for (uint8_t number = 1; number <= 2; ++number) {
        ASSERT_EQ(reader.ReceiveMany(m_slice.data()), 1);
        EXPECT_EQ(BytesOf(reader.Datagram(0)), Numbered(number));
    }
}

} // namespace
