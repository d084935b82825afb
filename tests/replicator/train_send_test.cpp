#include "replicator/train_send.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "pacing/ms_clock.h"
#include "replicator/train_refusals.h"
#include "support/loopback.h"
#include "support/send_hooks.h"

namespace {

using namespace test_support;

using Sizes = std::vector<size_t>;
using Counts = std::vector<size_t>;

// Packets of these sizes to a receiver on loopback.
class TrainSend : public testing::Test {
protected:
    void Make(const Sizes& sizes)
    {
        for (const size_t size : sizes)
            Add(std::make_unique<OwnedPacket>(Payload(size, static_cast<uint8_t>(m_packets.size()))));
    }
    void Add(std::unique_ptr<OwnedPacket> packet)
    {
        m_pointers.push_back(packet->Get());
        m_packets.push_back(std::move(packet));
    }

    int32_t Count() const { return static_cast<int32_t>(m_pointers.size()); }
    size_t BytesOfFirst(int32_t count) const
    {
        size_t bytes = 0;
        for (int32_t i = 0; i < count; ++i)
            bytes += BytesOf(*m_pointers[static_cast<size_t>(i)]).size();
        return bytes;
    }

    TrainResult Send(int32_t first = 0)
    {
        return SendTrains(m_target, m_pointers.data() + first, Count() - first, *m_refusals);
    }
    void ExpectAllTaken(const TrainResult& result) const
    {
        EXPECT_EQ(result.taken, Count());
        EXPECT_EQ(result.bytes, BytesOfFirst(Count()));
        EXPECT_EQ(result.end, TrainEnd::AsFarAsAsked);
    }
    // The first of them arrive, each once and in their order, and nothing else.
    void ExpectArrived(int32_t count)
    {
        for (int32_t i = 0; i < count; ++i)
            ASSERT_EQ(m_receiver->Next(), BytesOf(*m_pointers[static_cast<size_t>(i)])) << i;
        EXPECT_FALSE(m_receiver->HasDatagram());
    }
    bool AllowsTrainsOf(size_t pieceBytes) { return m_refusals->Allows(pieceBytes, GetSteadyMs); }
    bool HasRefusedNothing() { return AllowsTrainsOf(SIZE_MAX - 1); }
    void Connect()
    {
        EXPECT_EQ(connect(m_sender.Fd(), reinterpret_cast<const sockaddr*>(&m_target.address),
                      sizeof(m_target.address)),
            0);
        m_target.isConnected = true;
    }

    Receiver m_sender { "127.0.0.3" };
    std::optional<Receiver> m_receiver { std::in_place, "127.0.0.2" };
    DatagramTarget m_target { m_sender.Fd(), SocketAddress("127.0.0.2", m_receiver->Port()) };
    std::optional<TrainRefusals> m_refusals { std::in_place };
    std::vector<std::unique_ptr<OwnedPacket>> m_packets;
    std::vector<PacketBuffer*> m_pointers;
};

TEST_F(TrainSend, DatagramsOfOneSizeAreOneMessageOfOneCall)
{
    Make(Sizes(32, 1328));
    const WatchedSends sends;
    ExpectAllTaken(Send());
    ExpectArrived(32);
    ASSERT_EQ(sends.MessagesOfEach(), (Counts { 1 }));
    EXPECT_EQ(sends.DatagramsOfEach(0), (Counts { 32 }));
    EXPECT_EQ(sends.Calls()[0].flags, MSG_DONTWAIT);
    EXPECT_TRUE(sends.Calls()[0].messages[0].isNamed);
}

TEST_F(TrainSend, SeveralTrainsAndWhatGoesAloneInBetweenAreOneCall)
{
    Make({ 1328, 1328, 500, 1328, 0, 40, 40, 41 });
    const WatchedSends sends;
    ExpectAllTaken(Send());
    ExpectArrived(8);
    ASSERT_EQ(sends.MessagesOfEach(), (Counts { 5 }));
    EXPECT_EQ(sends.DatagramsOfEach(0), (Counts { 3, 1, 1, 2, 1 }));
}

TEST_F(TrainSend, WhatGoesAloneNamesNoPieceSize)
{
    Make({ 10, 20 });
    const WatchedSends sends;
    ExpectAllTaken(Send());
    EXPECT_EQ(sends.Calls()[0].messages[0].segmentBytes, 0U);
    EXPECT_EQ(sends.Calls()[0].messages[1].segmentBytes, 0U);
}

TEST_F(TrainSend, MoreMessagesThanOneCallTakesAreSentByTheNext)
{
    Sizes rising;
    for (size_t bytes = 1; bytes <= 20; ++bytes)
        rising.push_back(bytes);
    Make(rising);
    const WatchedSends sends;
    ExpectAllTaken(Send());
    ExpectArrived(20);
    EXPECT_EQ(sends.MessagesOfEach(), (Counts { 16, 4 }));
}

TEST_F(TrainSend, SixtyFourPacketsAreTakenAtMost)
{
    Make(Sizes(70, 100));
    const WatchedSends sends;
    const TrainResult result = Send();
    EXPECT_EQ(result.taken, 64);
    EXPECT_EQ(result.bytes, 6400U);
    EXPECT_EQ(result.end, TrainEnd::AsFarAsAsked);
    ExpectArrived(64);
    EXPECT_EQ(sends.DatagramsOfEach(0), (Counts { 32, 32 }));
}

// As the engines build them: a header and the payload behind it.
TEST_F(TrainSend, PacketsInTwoPartsAreTrainsToo)
{
    for (uint8_t i = 0; i < 5; ++i)
        Add(std::make_unique<OwnedPacket>(Payload(12, i), Payload(i < 4 ? 188 : 100, i)));
    Add(std::make_unique<OwnedPacket>(Payload(200, 9)));
    const WatchedSends sends;
    ExpectAllTaken(Send());
    ExpectArrived(6);
    ASSERT_EQ(sends.MessagesOfEach(), (Counts { 2 }));
    EXPECT_EQ(sends.DatagramsOfEach(0), (Counts { 5, 1 }));
}

TEST_F(TrainSend, AConnectedSocketIsNotToldTheAddress)
{
    Connect();
    Make({ 50, 50, 60 });
    const WatchedSends sends;
    ExpectAllTaken(Send());
    ExpectArrived(3);
    for (const SentMessage& message : sends.Calls().at(0).messages)
        EXPECT_FALSE(message.isNamed);
}

TEST_F(TrainSend, ARefusedTrainLeavesAsDatagramsInTheSameOperationAndTheSizeIsRemembered)
{
    Make(Sizes(20, 1000));
    for (const int error : { EIO, EINVAL, EMSGSIZE, EPERM, ENOBUFS, ENOMEM }) {
        m_refusals.emplace();
        const WatchedSends sends(RefuseTrains(error, 1));
        ExpectAllTaken(Send());
        ExpectArrived(20);
        EXPECT_EQ(sends.MessagesOfEach(), (Counts { 1, 16, 4 })) << error;
        EXPECT_FALSE(AllowsTrainsOf(1000)) << error;
        EXPECT_EQ(AllowsTrainsOf(999), error != EIO) << error;
    }
}

TEST_F(TrainSend, ARememberedSizeIsNotTriedAgainAndASmallerOneStillGoesTogether)
{
    m_refusals->OnRefused(1000, EMSGSIZE, GetSteadyMs());
    Make({ 1000, 1000, 1000, 600, 600 });
    const WatchedSends sends(RefuseTrains(EMSGSIZE, 0));
    ExpectAllTaken(Send());
    ExpectArrived(5);
    ASSERT_EQ(sends.MessagesOfEach(), (Counts { 4 }));
    EXPECT_EQ(sends.DatagramsOfEach(0), (Counts { 1, 1, 1, 2 }));
}

// The kernel tells how many messages went out, and not why the next did not.
TEST_F(TrainSend, AfterACallThatSentSomeItGoesOnFromThere)
{
    Make({ 10, 10, 20, 20, 30, 30, 40 });
    int message = 0;
    const WatchedSends sends([&message](const SentMessage&) { return ++message == 3 ? EAGAIN : 0; });
    ExpectAllTaken(Send());
    ExpectArrived(7);
    EXPECT_EQ(sends.MessagesOfEach(), (Counts { 4, 2 }));
    EXPECT_TRUE(HasRefusedNothing());
}

TEST_F(TrainSend, ATrainThatIsRefusedBehindOthersLeavesAsDatagramsInItsPlace)
{
    Make({ 10, 10, 20, 20, 5, 5, 30 });
    const WatchedSends sends(
        [](const SentMessage& message) { return message.segmentBytes == 20 ? EINVAL : 0; });
    ExpectAllTaken(Send());
    ExpectArrived(7);
    EXPECT_FALSE(AllowsTrainsOf(20));
    EXPECT_TRUE(AllowsTrainsOf(10));
}

TEST_F(TrainSend, AFullSendBufferEndsItAndTellsWhatHasLeft)
{
    Make({ 10, 10, 20, 20, 30, 30 });
    {
        const WatchedSends sends(
            [](const SentMessage& message) { return message.segmentBytes == 30 ? EAGAIN : 0; });
        const TrainResult result = Send();
        EXPECT_EQ(result.taken, 4);
        EXPECT_EQ(result.bytes, 60U);
        EXPECT_EQ(result.end, TrainEnd::WouldWait);
        EXPECT_FALSE(AllowsTrainsOf(10)) << "for a while datagrams go one by one";
    }
    ExpectArrived(4);
}

TEST_F(TrainSend, AFullSendBufferBehindARefusedTrainTellsWhatHasLeftToo)
{
    Make(Sizes(6, 100));
    int alone = 0;
    const WatchedSends sends([&alone](const SentMessage& message) {
        if (message.segmentBytes != 0)
            return EIO;
        return ++alone > 2 ? EAGAIN : 0;
    });
    const TrainResult result = Send();
    EXPECT_EQ(result.taken, 2);
    EXPECT_EQ(result.bytes, 200U);
    EXPECT_EQ(result.end, TrainEnd::WouldWait);
    ExpectArrived(2);
}

TEST_F(TrainSend, ASignalIsNoRefusal)
{
    Make(Sizes(4, 100));
    const WatchedSends sends(RefuseFirst(3, EINTR));
    ExpectAllTaken(Send());
    ExpectArrived(4);
    EXPECT_EQ(sends.MessagesOfEach(), (Counts { 1, 1, 1, 1 }));
    EXPECT_TRUE(HasRefusedNothing());
}

// The caller sends it plainly, which tells why.
TEST_F(TrainSend, ItEndsBeforeADatagramThatCannotLeaveAloneEither)
{
    Make({ 100, 100, 65508, 100 });
    const TrainResult result = Send();
    EXPECT_EQ(result.taken, 2);
    EXPECT_EQ(result.bytes, 200U);
    EXPECT_EQ(result.end, TrainEnd::Refused);
    EXPECT_TRUE(HasRefusedNothing());
    ExpectArrived(2);
}

TEST_F(TrainSend, ASocketThatCouldNotBeMadeTakesNothing)
{
    Make(Sizes(3, 100));
    m_target.fd = -1;
    const TrainResult result = Send();
    EXPECT_EQ(result.taken, 0);
    EXPECT_EQ(result.bytes, 0U);
    EXPECT_EQ(result.end, TrainEnd::Refused);
}

// The kernel takes no trains from a socket without checksums.
TEST_F(TrainSend, WhatTheKernelItselfRefusesArrivesAllTheSame)
{
    const int on = 1;
    ASSERT_EQ(setsockopt(m_sender.Fd(), SOL_SOCKET, SO_NO_CHECK, &on, sizeof(on)), 0);
    Make(Sizes(20, 1000));
    ExpectAllTaken(Send());
    ExpectArrived(20);
    EXPECT_FALSE(AllowsTrainsOf(1000));
}

TEST_F(TrainSend, AClosedPortCostsNothingAndIsNoRefusal)
{
    const PortLease lease;
    m_target.address = SocketAddress("127.0.0.2", lease.Port());
    Connect();
    Make({ 100, 100, 200, 200, 300, 300 });
    for (int i = 0; i < 5; ++i)
        ExpectAllTaken(Send());
    EXPECT_TRUE(HasRefusedNothing());
    m_receiver.emplace("127.0.0.2", lease.Port());
    ExpectAllTaken(Send());
    ExpectArrived(6);
    EXPECT_TRUE(HasRefusedNothing());
}

TEST_F(TrainSend, WhatMayBeSaidOfAnEarlierDatagramIsNoRefusalUnlessItIsSaidAgainAndAgain)
{
    Connect();
    Make(Sizes(4, 100));
    {
        const WatchedSends sends(RefuseFirst(2, ECONNREFUSED));
        ExpectAllTaken(Send());
        EXPECT_EQ(sends.MessagesOfEach(), (Counts { 1, 1, 1 }));
        EXPECT_TRUE(HasRefusedNothing());
    }
    ExpectArrived(4);
    const WatchedSends sends(RefuseTrains(EHOSTUNREACH));
    ExpectAllTaken(Send());
    EXPECT_EQ(sends.MessagesOfEach(), (Counts { 1, 1, 1, 4 }));
    EXPECT_FALSE(AllowsTrainsOf(100));
    ExpectArrived(4);
}

TEST_F(TrainSend, WhatLeavesInBetweenShowsThatTheErrorsWereOfEarlierDatagrams)
{
    Connect();
    Make({ 10, 10, 20, 20, 30, 30 });
    int tries = 0;
    const WatchedSends sends([&tries](const SentMessage&) { return ++tries % 3 != 0 ? ECONNREFUSED : 0; });
    ExpectAllTaken(Send());
    EXPECT_EQ(tries, 9) << "two refusals before each train";
    EXPECT_TRUE(HasRefusedNothing());
    ExpectArrived(6);
}

TEST_F(TrainSend, AWayThatStaysClosedEndsIt)
{
    Connect();
    Make(Sizes(4, 100));
    const WatchedSends sends(RefuseFirst(100, ENETUNREACH));
    const TrainResult result = Send();
    EXPECT_EQ(result.taken, 0);
    EXPECT_EQ(result.end, TrainEnd::Refused);
    EXPECT_EQ(sends.MessagesOfEach(), (Counts { 1, 1, 1, 4 }));
}

TEST_F(TrainSend, ASocketThatIsNotConnectedTellsOfNoEarlierDatagram)
{
    Make(Sizes(4, 100));
    const WatchedSends sends(RefuseTrains(EHOSTUNREACH));
    ExpectAllTaken(Send());
    EXPECT_EQ(sends.MessagesOfEach(), (Counts { 1, 4 }));
    ExpectArrived(4);
}

} // namespace
