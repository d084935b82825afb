// A stream's sockets: made, borrowed, adopted from the ping port, and not to be had.
#include "replicator/my_arq_send_cb.h"

#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "support/my_arq_send_cb_fixture.h"
#include "support/no_free_descriptor.h"

namespace {

using namespace test_support;

TEST_F(MyArqSendCBTest, TheOwnSocketMayShareItsPortAndIsClosedWithTheStream)
{
    auto stream = MakeStream();
    const int fd = stream->SocketNumber(0);
    EXPECT_TRUE(stream->OwnsSockets());
    int reuse = 0;
    socklen_t size = sizeof(reuse);
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, &size), 0);
    EXPECT_EQ(reuse, 1);
    stream.reset();
    EXPECT_FALSE(IsOpen(fd));
}

TEST_F(MyArqSendCBTest, ABorrowedSocketOutlivesOwnerOrBorrowerWhicheverGoesFirst)
{
    auto owner = MakeStream();
    auto borrower = MakeStreamWithoutSocket();
    borrower->BorrowSocket(owner->ShareSocket(0));
    const int fd = owner->SocketNumber(0);
    EXPECT_EQ(borrower->SocketNumber(0), fd);
    EXPECT_FALSE(borrower->OwnsSockets());
    borrower.reset();
    EXPECT_TRUE(IsOpen(fd));

    borrower = MakeStreamWithoutSocket();
    borrower->BorrowSocket(owner->ShareSocket(0));
    owner.reset();
    OwnedPacket packet(Bytes { 9 });
    EXPECT_EQ(borrower->SendData(packet.Get()), 1);
    EXPECT_EQ(m_receiver.Next(), (Bytes { 9 }));
    borrower.reset();
    EXPECT_FALSE(IsOpen(fd));
}

TEST_F(MyArqSendCBTest, AdoptingReplacesTheOwnSocketInOneStepAndKeepsItsNumber)
{
    const auto stream = MakeStream();
    const Receiver pingSocket("127.0.0.1");
    const int fd = stream->SocketNumber(0);
    EXPECT_TRUE(stream->AdoptSocket(pingSocket.Fd()));
    EXPECT_EQ(stream->SocketNumber(0), fd);
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    (void)m_receiver.Next();
    EXPECT_EQ(m_receiver.SourcePort(), pingSocket.Port());
}

TEST_F(MyArqSendCBTest, AdoptingKeepsTheNumberWhenALowerOneIsFree)
{
    UniqueFd lower(dup(m_receiver.Fd()));
    const auto stream = MakeStream();
    const Receiver pingSocket("127.0.0.1");
    const int fd = stream->SocketNumber(0);
    ASSERT_LT(lower.Get(), fd);
    lower.Reset();
    EXPECT_TRUE(stream->AdoptSocket(pingSocket.Fd()));
    EXPECT_EQ(stream->SocketNumber(0), fd);
    EXPECT_EQ(LocalPort(fd), pingSocket.Port());
}

TEST_F(MyArqSendCBTest, AdoptingOnAnOwnSocketNeedsNoFreeDescriptor)
{
    const auto stream = MakeStream();
    const Receiver pingSocket("127.0.0.1");
    {
        const NoFreeDescriptor none;
        EXPECT_TRUE(stream->AdoptSocket(pingSocket.Fd()));
    }
    EXPECT_EQ(LocalPort(stream->SocketNumber(0)), pingSocket.Port());
}

TEST_F(MyArqSendCBTest, WhileASocketIsAdoptedItsNumberIsNeverFree)
{
    constexpr int ADOPTIONS = 20000;
    const auto stream = MakeStream();
    const Receiver pingSockets[] { Receiver("127.0.0.1"), Receiver("127.0.0.1") };
    std::atomic<bool> isOver { false };
    std::atomic<int> failures { 0 };
    CapturedOutput output;
    std::thread sender([&] {
        OwnedPacket packet(Bytes { 1 });
        while (!isOver)
            failures += stream->SendData(packet.Get()) == 1 ? 0 : 1;
    });
    for (int i = 0; i < ADOPTIONS; ++i)
        EXPECT_TRUE(stream->AdoptSocket(pingSockets[i % 2].Fd()));
    isOver = true;
    sender.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(output.Err(), "");
}

TEST_F(MyArqSendCBTest, AnAdoptedSocketOutlivesThePingSocket)
{
    const auto stream = MakeStream();
    {
        const Receiver pingSocket("127.0.0.1");
        EXPECT_TRUE(stream->AdoptSocket(pingSocket.Fd()));
    }
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    EXPECT_EQ(m_receiver.Next(), (Bytes { 1 }));
}

TEST_F(MyArqSendCBTest, AdoptingOnABorrowedSocketLeavesTheOwnersSocketAlone)
{
    const auto owner = MakeStream();
    auto borrower = MakeStreamWithoutSocket();
    borrower->BorrowSocket(owner->ShareSocket(0));
    const Receiver pingSocket("127.0.0.1");
    EXPECT_TRUE(borrower->AdoptSocket(pingSocket.Fd()));
    EXPECT_NE(borrower->SocketNumber(0), owner->SocketNumber(0));
    EXPECT_TRUE(borrower->OwnsSockets());
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(borrower->SendData(packet.Get()), 1);
    (void)m_receiver.Next();
    EXPECT_EQ(m_receiver.SourcePort(), pingSocket.Port());
    EXPECT_EQ(owner->SendData(packet.Get()), 1);
    (void)m_receiver.Next();
    EXPECT_NE(m_receiver.SourcePort(), pingSocket.Port());
}

TEST_F(MyArqSendCBTest, AdoptingPutsASocketWhereNoneCouldBeMade)
{
    const auto stream = MakeStreamWithoutSocket();
    const Receiver pingSocket("127.0.0.1");
    EXPECT_TRUE(stream->AdoptSocket(pingSocket.Fd()));
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    EXPECT_EQ(m_receiver.Next(), (Bytes { 1 }));
}

TEST_F(MyArqSendCBTest, MediaGoOnFromTheOldSocketWhenAdoptingFails)
{
    const auto stream = MakeStream();
    auto borrower = MakeStreamWithoutSocket();
    borrower->BorrowSocket(stream->ShareSocket(0));
    CapturedOutput output;
    EXPECT_FALSE(stream->AdoptSocket(-1));
    EXPECT_FALSE(borrower->AdoptSocket(-1));
    EXPECT_EQ(output.Err(), "dup2 failed: Bad file descriptor\ndup failed: Bad file descriptor\n");
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    EXPECT_EQ(borrower->SendData(packet.Get()), 1);
    EXPECT_EQ(m_receiver.Next(), (Bytes { 1 }));
    EXPECT_EQ(m_receiver.Next(), (Bytes { 1 }));
}

TEST_F(MyArqSendCBTest, ABorrowerWithoutAFreeDescriptorAdoptsNothingAndSendsOn)
{
    const auto owner = MakeStream();
    auto borrower = MakeStreamWithoutSocket();
    borrower->BorrowSocket(owner->ShareSocket(0));
    const Receiver pingSocket("127.0.0.1");
    CapturedOutput output;
    {
        const NoFreeDescriptor none;
        EXPECT_FALSE(borrower->AdoptSocket(pingSocket.Fd()));
    }
    EXPECT_EQ(output.Err(), "dup failed: Too many open files\n");
    EXPECT_EQ(borrower->SocketNumber(0), owner->SocketNumber(0));
    EXPECT_FALSE(borrower->OwnsSockets());
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(borrower->SendData(packet.Get()), 1);
    EXPECT_EQ(m_receiver.Next(), (Bytes { 1 }));
    EXPECT_TRUE(borrower->AdoptSocket(pingSocket.Fd()));
}

TEST_F(MyArqSendCBTest, ASocketThatCannotBeMadeLeavesAStreamWhoseSendsFail)
{
    const auto stream = MakeStreamWithoutSocket();
    CapturedOutput output;
    {
        const NoFreeDescriptor none;
        stream->OpenSocket();
    }
    EXPECT_EQ(stream->SocketNumber(0), -1);
    EXPECT_TRUE(stream->OwnsSockets());
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(stream->SendData(packet.Get()), 0);
    stream->SendStop();
    EXPECT_EQ(output.Err(), "SendData failed: Bad file descriptor\n");
}

TEST_F(MyArqSendCBTest, AStreamWithoutSocketAndFreeDescriptorAdoptsWithTheNextPing)
{
    const auto stream = MakeStreamWithoutSocket();
    const Receiver pingSocket("127.0.0.1");
    CapturedOutput output;
    {
        const NoFreeDescriptor none;
        stream->OpenSocket();
        EXPECT_FALSE(stream->AdoptSocket(pingSocket.Fd()));
    }
    EXPECT_EQ(output.Err(), "dup failed: Too many open files\n");
    EXPECT_TRUE(stream->AdoptSocket(pingSocket.Fd()));
    EXPECT_EQ(LocalPort(stream->SocketNumber(0)), pingSocket.Port());
}

TEST_F(MyArqSendCBTest, AStreamThatHasLeftSendsNothingAndSaysNothing)
{
    const auto stream = MakeStream();
    stream->Leave();
    OwnedPacket packet(Bytes { 1 });
    CapturedOutput output;
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    EXPECT_EQ(output.Err(), "");
    EXPECT_FALSE(m_receiver.HasDatagram());
    EXPECT_EQ(m_stats.m_nTxPackets, 0U);
}

// As a thread finds it that stood in the send when the stream left.
TEST_F(MyArqSendCBTest, ASendThatTheLeavingBreaksOffFailsInSilence)
{
    const auto stream = MakeStream();
    stream->Leave();
    stream->m_bIsAlive = true;
    OwnedPacket packet(Bytes { 1 });
    CapturedOutput output;
    EXPECT_EQ(stream->SendData(packet.Get()), 0);
    EXPECT_EQ(output.Err(), "");
    EXPECT_FALSE(m_receiver.HasDatagram());
}

TEST_F(MyArqSendCBTest, LeavingSparesASocketThatOthersSendFrom)
{
    const auto owner = MakeStream();
    auto borrower = MakeStreamWithoutSocket();
    borrower->BorrowSocket(owner->ShareSocket(0));
    const auto adopter = MakeStream();
    const Receiver pingSocket("127.0.0.1");
    EXPECT_TRUE(adopter->AdoptSocket(pingSocket.Fd()));
    for (MyArqSendCB* stream : { owner.get(), borrower.get(), adopter.get() })
        stream->Leave();
    OwnedPacket packet(Bytes { 1 });
    for (MyArqSendCB* stream : { owner.get(), borrower.get(), adopter.get() }) {
        stream->m_bIsAlive = true;
        EXPECT_EQ(stream->SendData(packet.Get()), 1);
        EXPECT_EQ(m_receiver.Next(), (Bytes { 1 }));
    }
}

} // namespace
