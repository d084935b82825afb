// Streams that send from one socket, by themselves and in the packet path.
#include "replicator/shared_send.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/allocation_hooks.h"
#include "support/fan_out_fixture.h"
#include "support/send_hooks.h"

namespace {

using namespace test_support;

using Counts = std::vector<size_t>;

class SharedSend : public FanOutTest {
protected:
    // A stream whose media start on the ping socket's port, as if its receiver had pinged there.
    MyArqSendCB& AddLearnt(const char* address, uint16_t port, const Receiver& pingSocket)
    {
        MyArqSendCB& stream = AddStream(address, port);
        EXPECT_TRUE(stream.AdoptSocket(pingSocket.Fd()));
        return stream;
    }
    MyArqSendCB& AddLearnt(const char* address, const Receiver& receiver)
    {
        return AddLearnt(address, receiver.Port(), m_pingSocket);
    }
    int32_t Sharing(int32_t first) const
    {
        const StreamTable::View view(m_table);
        return CountSharing(view, first);
    }

    Receiver m_pingSocket { "127.0.0.1" };
    Receiver m_first { "127.0.0.2" };
    Receiver m_second { "127.0.0.3" };
    Receiver m_third { "127.0.0.4" };
};

TEST_F(SharedSend, LearntStreamsGetAPacketInOneCallThatDoesNotWaitInTheOrderOfTheTable)
{
    (void)AddLearnt("127.0.0.2", m_first);
    (void)AddLearnt("127.0.0.3", m_second);
    (void)AddLearnt("127.0.0.4", m_third);
    const WatchedSends sends;
    OwnedPacket packet(RtpPacket(10));
    EXPECT_EQ(Send(packet), 1);
    for (Receiver* receiver : { &m_first, &m_second, &m_third }) {
        EXPECT_EQ(receiver->Next(), packet.Data());
        EXPECT_EQ(receiver->SourcePort(), m_pingSocket.Port());
        EXPECT_FALSE(receiver->HasDatagram());
    }
    ASSERT_EQ(sends.MessagesOfEach(), (Counts { 3 }));
    const SendCall& call = sends.Calls()[0];
    EXPECT_EQ(call.kind, SendKind::SendMmsg);
    EXPECT_EQ(call.flags, MSG_DONTWAIT);
    EXPECT_EQ(call.messages[0].port, m_first.Port());
    EXPECT_EQ(call.messages[1].port, m_second.Port());
    EXPECT_EQ(call.messages[2].port, m_third.Port());
    EXPECT_EQ(m_tx.m_nTxPackets, 3U);
    EXPECT_EQ(m_tx.m_nTxBytes, 3 * packet.Data().size());
}

TEST_F(SharedSend, NeighboursWithTheSamePingSocketShareAndNobodyElseDoes)
{
    const Receiver otherPingSocket("127.0.0.1");
    (void)AddLearnt("127.0.0.2", m_first);
    (void)AddLearnt("127.0.0.3", m_second);
    (void)AddStream("127.0.0.4", 9); // a socket of its own
    (void)AddStream("127.0.0.5", 9); // another one
    (void)AddLearnt("127.0.0.6", m_first);
    (void)AddLearnt("127.0.0.7", 9, otherPingSocket);
    (void)AddLearnt("127.0.0.8", 9, otherPingSocket);
    const std::vector<int32_t> expected { 2, 1, 1, 1, 1, 2, 1 };
    for (int32_t i = 0; i < 7; ++i)
        EXPECT_EQ(Sharing(i), expected[static_cast<size_t>(i)]) << i;
}

TEST_F(SharedSend, AStreamThatIsNotAliveOrHasSeveralSocketsGoesAlone)
{
    (void)AddLearnt("127.0.0.2", m_first);
    MyArqSendCB& dead = AddLearnt("127.0.0.3", m_second);
    (void)AddLearnt("127.0.0.4", m_third);
    MyArqSendCB& spread = AddLearnt("127.0.0.5", m_third);
    (void)AddLearnt("127.0.0.6", m_third);
    dead.m_bIsAlive = false;
    {
        const CapturedOutput output;
        spread.BindInterfaces(2, 50);
    }
    for (int32_t i = 0; i < 5; ++i)
        EXPECT_EQ(Sharing(i), 1) << i;
}

TEST_F(SharedSend, BorrowersShareTheOwnersSocket)
{
    const MyArqSendCB& owner = AddStreamTo("127.0.0.2", m_first);
    AddStreamTo("127.0.0.3", m_second).BorrowSocket(owner.ShareSocket(0));
    AddStreamTo("127.0.0.4", m_third).BorrowSocket(owner.ShareSocket(0));
    EXPECT_EQ(Sharing(0), 3);
    EXPECT_EQ(Sharing(1), 2);
    // One of them answers a ping from the ping socket's port from now on.
    const StreamTable::View view(m_table);
    EXPECT_TRUE(view.At(1).AdoptSocket(m_pingSocket.Fd()));
    EXPECT_EQ(CountSharing(view, 0), 1);
    EXPECT_EQ(CountSharing(view, 1), 1);
}

TEST_F(SharedSend, StreamsWithoutASocketShareNone)
{
    for (MyArqSendCB* stream : { &AddStream("127.0.0.2", 9), &AddStream("127.0.0.3", 9) })
        stream->BorrowSocket(SharedSocket());
    EXPECT_EQ(Sharing(0), 1);
}

// A plain send tells why.
TEST_F(SharedSend, AReceiverThatIsRefusedIsReportedAndThoseBehindItGetThePacketOnce)
{
    (void)AddLearnt("127.0.0.2", m_first);
    (void)AddLearnt("255.255.255.255", 9, m_pingSocket); // the socket may not send to the broadcast address
    (void)AddLearnt("127.0.0.3", m_second);
    (void)AddLearnt("127.0.0.4", m_third);
    const WatchedSends sends;
    OwnedPacket packet(RtpPacket(10));
    CapturedOutput output;
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(output.Err(), "SendData failed: Permission denied\n");
    for (Receiver* receiver : { &m_first, &m_second, &m_third }) {
        EXPECT_EQ(receiver->Next(), packet.Data());
        EXPECT_FALSE(receiver->HasDatagram());
    }
    EXPECT_EQ(sends.MessagesOfEach(), (Counts { 4, 1, 2 }));
    EXPECT_EQ(m_tx.m_nTxPackets, 4U);
    EXPECT_EQ(m_tx.m_nTxBytes, 3 * packet.Data().size());
}

// Because of a full send buffer, or a signal: the plain send waits.
TEST_F(SharedSend, WhenTheSharedCallSendsNothingTheFirstGetsThePacketPlainly)
{
    (void)AddLearnt("127.0.0.2", m_first);
    (void)AddLearnt("127.0.0.3", m_second);
    (void)AddLearnt("127.0.0.4", m_third);
    OwnedPacket packet(RtpPacket(10));
    CapturedOutput output;
    for (const int error : { EAGAIN, EINTR }) {
        const WatchedSends sends(RefuseFirst(1, error));
        EXPECT_EQ(Send(packet), 1);
        ASSERT_EQ(sends.MessagesOfEach(), (Counts { 3, 1, 2 }));
        EXPECT_EQ(sends.Calls()[1].flags, 0);
        for (Receiver* receiver : { &m_first, &m_second, &m_third }) {
            EXPECT_EQ(receiver->Next(), packet.Data());
            EXPECT_FALSE(receiver->HasDatagram());
        }
    }
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(m_tx.m_nTxPackets, 6U);
    EXPECT_EQ(m_tx.m_nTxBytes, 6 * packet.Data().size());
}

TEST_F(SharedSend, AWithheldPacketGoesToNobodyAndIsStored)
{
    (void)AddLearnt("127.0.0.2", m_first);
    const RecordingEngine& engine = ReplaceEngine(AddLearnt("127.0.0.3", m_second));
    WithholdEveryOtherPacket();
    const WatchedSends sends;
    OwnedPacket packet(RtpPacket(10));
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(sends.Calls().size(), 0U);
    EXPECT_EQ(engine.m_stored.size(), 1U);
}

TEST_F(SharedSend, APacketOfTwoPartsIsOneDatagramForEach)
{
    (void)AddLearnt("127.0.0.2", m_first);
    (void)AddLearnt("127.0.0.3", m_second);
    OwnedPacket packet(RtpHeader(10), Payload(188));
    const StreamTable::View view(m_table);
    EXPECT_EQ(SendShared(view, 0, 2, *packet.Get()), 2);
    EXPECT_EQ(m_first.Next(), BytesOf(*packet.Get()));
    EXPECT_EQ(m_second.Next(), BytesOf(*packet.Get()));
    EXPECT_EQ(m_tx.m_nTxPackets, 2U);
    EXPECT_EQ(m_tx.m_nTxBytes, 400U);
}

TEST_F(SharedSend, FiftyStreamsAreOneCallForWhichNothingIsAllocated)
{
    for (int i = 2; i < 52; ++i)
        (void)AddLearnt(("127.0.1." + std::to_string(i)).c_str(), 9, m_pingSocket);
    OwnedPacket packet(RtpPacket(10));
    const AllocationCount count;
    (void)Send(packet);
    EXPECT_EQ(count.Count(), 0U);
    EXPECT_EQ(Sharing(0), 50);
    EXPECT_EQ(m_tx.m_nTxPackets, 50U);
}

} // namespace
