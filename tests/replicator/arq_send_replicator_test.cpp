#include "replicator/arq_send_replicator.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "support/allocation_hooks.h"
#include "support/replicator_fixture.h"

namespace {

using namespace test_support;

// Construction and destruction: destinations, shared ports, what is printed.
class ArqSendReplicatorTest : public ReplicatorTest {
protected:
    // Builds the replicator, ends its threads and keeps what was printed.
    void BuildQuietly()
    {
        CapturedOutput output;
        (void)BuildStopped();
        m_out = output.Out();
        m_err = output.StampedErr();
    }
    bool Printed(const std::string& text) const { return m_out.find(text) != std::string::npos; }
    bool Complained(const std::string& text) const { return m_err.find(text) != std::string::npos; }

    std::string m_out;
    std::string m_err;
};

TEST_F(ArqSendReplicatorTest, WithoutDestinationsItStartsWithoutStreams)
{
    BuildQuietly();
    EXPECT_EQ(m_out, "Number of ARQ Buffers = 64\n");
    EXPECT_EQ(m_err.find("Maximum output streams = 50\n"), 0U);
    EXPECT_EQ(CountOfStreams(*m_replicator), 0);
    EXPECT_EQ(m_replicator->MulticastStream(), nullptr);
    EXPECT_EQ(m_replicator->PacketPool().Count(), 64U + 1024U);
    EXPECT_EQ(m_replicator->m_nDropPacket, 0);
    EXPECT_EQ(m_replicator->m_impair.m_mode, 0);
    EXPECT_EQ(m_replicator->m_impair.m_burst.m_value, 1);
    EXPECT_EQ(m_replicator->m_impair.m_dist.m_value, 99);
    EXPECT_EQ(m_replicator->ArqRequestPort(), m_requestLease.Port());
}

TEST_F(ArqSendReplicatorTest, StartTellsOfItsThreadsInOrder)
{
    BuildQuietly();
    std::string started;
    for (size_t at = m_err.find("ArqSendReplicator"); at != std::string::npos;
         at = m_err.find("ArqSendReplicator", at + 1))
        started += m_err.substr(at, m_err.find('\n', at) + 1 - at);
    EXPECT_EQ(started,
        "ArqSendReplicator::Start: Create KeepAlive Thread\n"
        "ArqSendReplicator::Start: Create Status Thread\n"
        "ArqSendReplicator::Start: started listener thread\n");
    EXPECT_TRUE(
        Complained("SocketListener: sock bound to port " + std::to_string(m_pingLease.Port()) + "\n"));
    EXPECT_TRUE(
        Complained("SocketListener: sock bound to port " + std::to_string(m_requestLease.Port()) + "\n"));
}

TEST_F(ArqSendReplicatorTest, TwoAddressesAreTwoStreamsInTheirOrder)
{
    m_settings.destAddress = "10.0.0.1,10.0.0.2";
    BuildQuietly();
    EXPECT_EQ(List(), "10.0.0.1,10.0.0.2");
    EXPECT_TRUE(Complained("<time> AddStream: Added 10.0.0.1 stream ID:0x00000000\n"
                           "<time> AddStream: Added 10.0.0.2 stream ID:0x00000000\n"));
    for (int32_t i = 0; i < 2; ++i) {
        EXPECT_TRUE(Stream(i).m_bIsAlive);
        EXPECT_TRUE(Stream(i).m_life.IsStatic());
        EXPECT_TRUE(Stream(i).m_life.HasStarted());
        EXPECT_EQ(Stream(i).ConfiguredPort(), m_pingLease.Port());
    }
}

TEST_F(ArqSendReplicatorTest, WithoutUnicastPortAMulticastAddressIsSkippedWithAMessage)
{
    m_settings.destAddress = "239.1.1.1,10.0.0.1";
    BuildQuietly();
    EXPECT_TRUE(Printed("Error: Skipping 239.1.1.1, not an unicast address\n"));
    EXPECT_EQ(List(), "10.0.0.1");
    EXPECT_EQ(m_replicator->MulticastStream(), nullptr);
}

TEST_F(ArqSendReplicatorTest, WithAUnicastPortTheFirstMulticastAddressIsTheOnlyDestination)
{
    const PortLease unicastLease;
    m_settings.unicastUdpPort = unicastLease.Port();
    m_settings.destAddress = "10.0.0.1,239.1.1.1,239.1.1.2,10.0.0.2";
    BuildQuietly();
    EXPECT_EQ(m_out,
        "Number of ARQ Buffers = 64\nError: Skipping 10.0.0.1, not a multicast address\n"
        "Multicasting to 239.1.1.1:"
            + std::to_string(m_pingLease.Port()) + ", Unicasting to " + std::to_string(unicastLease.Port())
            + "\n");
    EXPECT_EQ(CountOfStreams(*m_replicator), 0);
    ASSERT_NE(m_replicator->MulticastStream(), nullptr);
    EXPECT_STREQ(m_replicator->MulticastStream()->HostText(), "239.1.1.1");
    EXPECT_EQ(m_replicator->MulticastStream()->DestinationPortNet(), htons(m_pingLease.Port()));
    EXPECT_TRUE(m_replicator->MulticastStream()->m_bIsAlive);
    EXPECT_EQ(m_replicator->DestPort(), unicastLease.Port());
    EXPECT_EQ(m_replicator->AddStream("127.0.0.2", 0), 1);
    EXPECT_EQ(Stream(0).ConfiguredPort(), unicastLease.Port());
}

TEST_F(ArqSendReplicatorTest, WithAUnicastPortButNoMulticastAddressItRunsOnWithoutStreams)
{
    m_settings.unicastUdpPort = 5000;
    m_settings.destAddress = "10.0.0.1";
    BuildQuietly();
    EXPECT_TRUE(Printed("Error: Skipping 10.0.0.1, not a multicast address\nError: No multicast address\n"));
    EXPECT_EQ(CountOfStreams(*m_replicator), 0);
    EXPECT_EQ(m_replicator->MulticastStream(), nullptr);
    EXPECT_EQ(m_replicator->DestPort(), m_pingLease.Port());
}

// Each allocation in turn fails; it is the stream's or its engine's when a usable replicator has no such stream.
TEST_F(ArqSendReplicatorTest, AMulticastStreamThatCannotBeMadeLeavesMediaToTheOthers)
{
    constexpr int MORE_THAN_ENOUGH = 100;
    const PortLease unicastLease;
    Receiver receiver("127.0.0.2", unicastLease.Port());
    m_settings.unicastUdpPort = unicastLease.Port();
    m_settings.destAddress = "239.1.1.1";
    const ShortWaits waits;
    int withoutStream = 0;
    bool isFired = true;
    for (int n = 1; isFired && n < MORE_THAN_ENOUGH; ++n) {
        bool ok = false;
        CapturedOutput output;
        std::optional<ArqSendReplicator> replicator;
        {
            const FailNthAllocation failing(n);
            replicator.emplace(ok, m_settings);
            isFired = failing.Fired();
        }
        if (!ok || replicator->MulticastStream() != nullptr)
            continue;
        ++withoutStream;
        EXPECT_EQ(replicator->AddStream("127.0.0.2", 0), 1);
        OwnedPacket packet(RtpPacket(static_cast<uint16_t>(n)));
        EXPECT_EQ(replicator->SendPacket(packet.Get()), 1);
        EXPECT_EQ(RtpSeq(receiver.Next()), n);
        replicator.reset(); // the streams may still hold the packet
        EXPECT_NE(output.Out().find("Multicasting to 239.1.1.1:" + std::to_string(m_pingLease.Port())
                      + ", Unicasting to " + std::to_string(unicastLease.Port()) + "\n"),
            std::string::npos);
        EXPECT_EQ(output.Err().find("AddStream: Added 239.1.1.1"), std::string::npos);
    }
    EXPECT_FALSE(isFired);
    EXPECT_GE(withoutStream, 3) << "the stream, its engine and the engine's ring";
}

TEST_F(ArqSendReplicatorTest, DestinationsThatDoNotResolveAreSkippedSilently)
{
    m_settings.destAddress = ",256.1.1.1,,127.0.0.2,1.2.3.4.5,";
    BuildQuietly();
    EXPECT_EQ(List(), "127.0.0.2");
    EXPECT_EQ(m_out, "Number of ARQ Buffers = 64\n");
    EXPECT_FALSE(Complained("unknown host"));
}

TEST_F(ArqSendReplicatorTest, AnEmptyDestinationTextIsNoDestination)
{
    m_settings.destAddress = "";
    BuildQuietly();
    EXPECT_EQ(CountOfStreams(*m_replicator), 0);
}

TEST_F(ArqSendReplicatorTest, ADestinationTextOfAnyLengthIsReadAndTheFiftyFirstStreamRefused)
{
    std::string text;
    for (int i = 0; i < 1000; ++i)
        text += "256.1.1.1,";
    for (int i = 2; i < 53; ++i)
        text += "127.0.0." + std::to_string(i) + ",";
    m_settings.destAddress = text.c_str();
    BuildQuietly();
    EXPECT_EQ(CountOfStreams(*m_replicator), 50);
    EXPECT_STREQ(Stream(49).HostText(), "127.0.0.51");
    EXPECT_TRUE(Complained("<time> Stream not added, no more available streams, ID:0x00000000\n"));
    EXPECT_FALSE(Complained("127.0.0.52"));
}

// With -p equal to -r receivers' requests are read from the very socket that sends the media.
class SharedPortsTest : public ArqSendReplicatorTest {
protected:
    SharedPortsTest() { m_settings.arqRequestPort = m_settings.destPort; }

    static std::string Dupping(int fd) { return "Dupping socket " + std::to_string(fd) + "\n"; }
    std::string Bound() const
    {
        return "SocketListener: sock bound to port " + std::to_string(m_pingLease.Port()) + "\n";
    }
};

TEST_F(SharedPortsTest, WithoutStreamsBothListenersShareThePort)
{
    BuildQuietly();
    EXPECT_FALSE(Complained("Dupping"));
    EXPECT_EQ(CountOf(m_err, Bound()), 2U);
    EXPECT_FALSE(Complained("KeepAlive"));
    EXPECT_TRUE(Complained("ArqSendReplicator::Start: Create Status Thread\n"));
}

TEST_F(SharedPortsTest, WithoutInterfacesTheOnlyListenerUsesTheSocketOfStream0)
{
    m_settings.destAddress = "127.0.0.2,127.0.0.3";
    BuildQuietly();
    const int fd = Stream(0).SocketNumber(0);
    EXPECT_EQ(Stream(1).SocketNumber(0), fd);
    EXPECT_TRUE(Complained("Dupping socket " + std::to_string(fd) + " for stream 1\n"));
    EXPECT_TRUE(Complained(Dupping(fd)));
    EXPECT_EQ(CountOf(m_err, Bound()), 1U);
    EXPECT_EQ(LocalPort(fd), m_pingLease.Port());
    EXPECT_FALSE(Complained("KeepAlive"));
}

TEST_F(SharedPortsTest, WithOneInterfaceTheOnlyListenerUsesTheSocketOfStream0)
{
    m_settings.destAddress = "127.0.0.2";
    m_settings.nStreams = 1;
    BuildQuietly();
    EXPECT_TRUE(Complained(Dupping(Stream(0).SocketNumber(0))));
    EXPECT_EQ(CountOf(m_err, "Dupping socket"), 1U);
    EXPECT_EQ(CountOf(m_err, Bound()), 1U);
    EXPECT_EQ(Stream(0).SocketNumber(1), -1);
}

TEST_F(SharedPortsTest, WithTwoInterfacesBothSocketsOfStream0AreListenedOn)
{
    m_settings.destAddress = "127.0.0.2";
    m_settings.nStreams = 2;
    BuildQuietly();
    const int first = Stream(0).SocketNumber(0);
    const int second = Stream(0).SocketNumber(1);
    EXPECT_TRUE(Complained(Dupping(second) + Dupping(first)));
    EXPECT_EQ(CountOf(m_err, Bound()), 2U);
    EXPECT_EQ(LocalPort(first), m_pingLease.Port());
    EXPECT_EQ(LocalPort(second), m_pingLease.Port());
}

// Whether the socket still sends; on loopback, wherever it was bound to.
bool Sends(int fd, Receiver& receiver)
{
    EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, "", 0), 0);
    const sockaddr_in to = SocketAddress("127.0.0.3", receiver.Port());
    if (sendto(fd, "x", 1, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) != 1)
        return false;
    return receiver.Next() == Bytes { 'x' };
}

TEST_F(SharedPortsTest, DeletingStream0CutsOffThoseOfItsSocketsThatNobodyListensOn)
{
    Receiver receiver("127.0.0.3");
    m_settings.destAddress = "127.0.0.2";
    for (const int32_t nStreams : { 1, 2, 4 }) {
        m_settings.nStreams = nStreams;
        BuildQuietly();
        const CapturedOutput output;
        const MyArqSendCB& stream = Stream(0); // nobody destroys it: the threads are stopped
        EXPECT_EQ(m_replicator->DeleteStream("127.0.0.2"), 1);
        for (int32_t i = 0; i < nStreams; ++i)
            EXPECT_EQ(Sends(stream.SocketNumber(i), receiver), i < 2) << "socket " << i << " of " << nStreams;
    }
}

TEST_F(SharedPortsTest, AfterStream0IsDeletedTheOthersSendAndRequestsAreAnswered)
{
    m_settings.destAddress = "127.0.0.2,127.0.0.3";
    Receiver receiver("127.0.0.3", m_pingLease.Port());
    CapturedOutput output;
    ArqSendReplicator& replicator = Build();
    ASSERT_EQ(replicator.DeleteStream("127.0.0.2"), 1);
    EXPECT_EQ(List(), "127.0.0.3");
    OwnedPacket packet(RtpPacket(7));
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(RtpSeq(receiver.Next()), 7);
    EXPECT_EQ(receiver.SourcePort(), m_pingLease.Port());
    receiver.SendTo("127.0.0.1", m_pingLease.Port(), Request({ 7 }));
    const Bytes again = receiver.Next();
    EXPECT_EQ(RtpSeq(again), 7);
    EXPECT_EQ(PayloadType(again), RETRANSMIT_PAYLOAD_TYPE);
    // A stream that is added now finds a socket of the shared port as well.
    EXPECT_EQ(replicator.AddStream("127.0.0.4", 0), 1);
    EXPECT_EQ(LocalPort(Stream(1).SocketNumber(0)), m_pingLease.Port());
    replicator.Stop(); // the listen thread may still hold the packet
}

// Each allocation in turn fails until a replicator comes out usable; only the first ones are needed for that.
TEST_F(ArqSendReplicatorTest, WithoutMemoryForProbePoolOrClockItIsNotUsable)
{
    constexpr int MORE_THAN_ENOUGH = 30;
    size_t silent = 0;
    size_t poolMessages = 0;
    bool ok = false;
    int n = 1;
    for (; !ok && n < MORE_THAN_ENOUGH; ++n) {
        CapturedOutput output;
        {
            const FailNthAllocation failing(n);
            const ArqSendReplicator replicator(ok, m_settings);
            EXPECT_TRUE(failing.Fired());
        }
        if (ok)
            break;
        if (output.Err() == "Maximum output streams = 50\n")
            ++silent;
        else if (output.Err()
            == "Maximum output streams = 50\nArqSendReplicator: ERROR: PacketBufferInit failed!\n")
            ++poolMessages;
        else
            ADD_FAILURE() << "allocation " << n << ": " << output.Err();
    }
    EXPECT_TRUE(ok);
    EXPECT_GE(silent, 2U) << "the probe's engine and the clock";
    EXPECT_EQ(poolMessages, 4U) << "the pool, its slices, descriptors and pointers";
}

} // namespace
