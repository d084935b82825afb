// Several packets to one stream in one operation.
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "replicator/my_arq_send_cb.h"
#include "support/my_arq_send_cb_fixture.h"
#include "support/send_hooks.h"

namespace {

using namespace test_support;

using Counts = std::vector<size_t>;

class SendTogether : public MyArqSendCBTest {
protected:
    void Make(const std::vector<size_t>& sizes)
    {
        for (const size_t size : sizes) {
            m_packets.push_back(
                std::make_unique<OwnedPacket>(Payload(size, static_cast<uint8_t>(m_packets.size()))));
            m_pointers.push_back(m_packets.back()->Get());
        }
    }
    int32_t Count() const { return static_cast<int32_t>(m_pointers.size()); }
    int32_t SendUnlessWaiting() { return m_stream->SendUnlessWaiting(m_pointers.data(), Count()); }
    int32_t SendAtOnce() { return m_stream->SendAtOnce(m_pointers.data(), Count()); }
    void ExpectArrived(const std::vector<size_t>& indices)
    {
        for (const size_t index : indices)
            ASSERT_EQ(m_receiver.Next(), m_packets[index]->Data()) << index;
        EXPECT_FALSE(m_receiver.HasDatagram());
    }
    void ExpectCounted(uint64_t packets, uint64_t bytes) const
    {
        EXPECT_EQ(m_stats.m_nTxPackets, packets);
        EXPECT_EQ(m_stats.m_nTxBytes, bytes);
    }
    void UseTwoSockets()
    {
        const CapturedOutput output;
        m_stream->BindInterfaces(2, 50);
    }

    const std::unique_ptr<MyArqSendCB> m_stream = MakeStream();
    std::vector<std::unique_ptr<OwnedPacket>> m_packets;
    std::vector<PacketBuffer*> m_pointers;
};

TEST_F(SendTogether, AllArriveAndAreCountedOneByOne)
{
    Make({ 100, 100, 50, 200 });
    EXPECT_EQ(SendUnlessWaiting(), 4);
    ExpectArrived({ 0, 1, 2, 3 });
    ExpectCounted(4, 450);
}

TEST_F(SendTogether, ADatagramThatIsRefusedIsReportedAndThoseBehindItLeave)
{
    Make({ 100, 100, 65508, 100, 100 });
    CapturedOutput output;
    EXPECT_EQ(SendUnlessWaiting(), 5);
    EXPECT_EQ(output.Err(), "SendData failed: Message too long\n");
    ExpectArrived({ 0, 1, 3, 4 });
    ExpectCounted(5, 400);
}

TEST_F(SendTogether, ItEndsBeforeTheFirstThatWouldHaveToWait)
{
    Make({ 100, 100, 200, 200 });
    {
        const WatchedSends sends(
            [](const SentMessage& message) { return message.segmentBytes == 200 ? EAGAIN : 0; });
        EXPECT_EQ(SendUnlessWaiting(), 2);
        EXPECT_EQ(sends.MessagesOfEach(), (Counts { 2, 1 }));
    }
    ExpectArrived({ 0, 1 });
    ExpectCounted(2, 200);
}

TEST_F(SendTogether, MorePacketsThanOneOperationTakesLeaveAllTheSame)
{
    Make(std::vector<size_t>(70, 100));
    EXPECT_EQ(SendUnlessWaiting(), 70);
    ExpectCounted(70, 7000);
}

// Wherever such devices lead, nothing is to leave there.
TEST_F(SendTogether, SeveralSocketsGetDatagramByDatagramWithoutAWait)
{
    UseTwoSockets();
    Make({ 100, 100 });
    const WatchedSends sends(RefuseFirst(100, EAGAIN));
    EXPECT_EQ(SendUnlessWaiting(), 0);
    EXPECT_EQ(SendAtOnce(), 0);
    ASSERT_EQ(sends.MessagesOfEach(), (Counts { 1, 1 }));
    for (const SendCall& call : sends.Calls()) {
        EXPECT_EQ(call.flags, MSG_DONTWAIT);
        EXPECT_EQ(call.fd, m_stream->SocketNumber(0)); // whose turn it stays
    }
    ExpectCounted(0, 0);
}

TEST_F(SendTogether, ARefusalByOneOfSeveralSocketsIsReportedAndTheNextHasItsTurn)
{
    UseTwoSockets();
    Make({ 100, 100 });
    const WatchedSends sends(RefuseFirst(100, EPERM));
    CapturedOutput output;
    EXPECT_EQ(SendUnlessWaiting(), 2);
    EXPECT_EQ(
        output.Err(), "SendData failed: Operation not permitted\nSendData failed: Operation not permitted\n");
    ASSERT_EQ(sends.Calls().size(), 4U);
    EXPECT_EQ(sends.Calls()[1].fd, m_stream->SocketNumber(0));
    EXPECT_EQ(sends.Calls()[3].fd, m_stream->SocketNumber(1));
    ExpectCounted(2, 0);
}

TEST_F(SendTogether, AStreamThatIsNotAliveIsDoneWithEachAndSaysSo)
{
    m_stream->m_bIsAlive = false;
    Make({ 100, 100 });
    CapturedOutput output;
    EXPECT_EQ(SendUnlessWaiting(), 2);
    EXPECT_EQ(output.Err(), "SendData:: m_bIsAlive is false\nSendData:: m_bIsAlive is false\n");
    EXPECT_FALSE(m_receiver.HasDatagram());
    ExpectCounted(0, 0);
}

TEST_F(SendTogether, AStreamThatHasLeftTakesThemInSilence)
{
    m_stream->Leave();
    Make({ 100, 100 });
    CapturedOutput output;
    EXPECT_EQ(SendUnlessWaiting(), 2);
    EXPECT_EQ(SendAtOnce(), 0);
    EXPECT_EQ(output.Err(), "");
    ExpectCounted(0, 0);
}

// The engine sends what is left by SendData.
TEST_F(SendTogether, AtOnceLeavesARefusedDatagramToTheCallerAndSaysNothing)
{
    Make({ 100, 100, 65508, 100 });
    CapturedOutput output;
    EXPECT_EQ(SendAtOnce(), 2);
    EXPECT_EQ(output.Err(), "");
    ExpectArrived({ 0, 1 });
    ExpectCounted(2, 200);
}

TEST_F(SendTogether, AtOnceTakesNothingForAStreamThatIsNotAlive)
{
    m_stream->m_bIsAlive = false;
    Make({ 100, 100 });
    CapturedOutput output;
    EXPECT_EQ(SendAtOnce(), 0);
    EXPECT_EQ(output.Err(), "");
}

TEST_F(SendTogether, TheStreamRemembersWhatItsWayHasRefused)
{
    Make({ 100, 100, 100 });
    {
        const WatchedSends sends(RefuseTrains(EIO, 1));
        EXPECT_EQ(SendAtOnce(), 3);
        EXPECT_EQ(sends.MessagesOfEach(), (Counts { 1, 3 }));
    }
    const WatchedSends sends;
    EXPECT_EQ(SendUnlessWaiting(), 3);
    EXPECT_EQ(sends.MessagesOfEach(), (Counts { 3 }));
    ExpectArrived({ 0, 1, 2, 0, 1, 2 });
    ExpectCounted(6, 600);
}

} // namespace
