#include "replicator/socket_listener.h"

#include <fcntl.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "pacing/ms_clock.h"
#include "support/allocation_hooks.h"
#include "support/captured_output.h"
#include "support/loopback.h"
#include "support/system_hooks.h"

namespace {

using test_support::Bytes;
using test_support::CapturedOutput;
using test_support::Net;
using test_support::PortLease;
using test_support::Receiver;

struct Arrival {
    PacketBuffer* packet;
    Bytes data;
    in_addr_t addressNet;
    uint16_t portNet;
};

class RecordingListener : public SocketListener {
public:
    using SocketListener::SocketListener;

    int OnPacket(PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet) override
    {
        m_arrivals.push_back(
            { packet, Bytes(packet->Data(), packet->Data() + packet->Length()), addressNet, portNet });
        return 1;
    }

    std::vector<Arrival> m_arrivals;
};

int ReceiveBufferBytes(int fd)
{
    int bytes = 0;
    socklen_t size = sizeof(bytes);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, &size), 0);
    return bytes;
}

class SocketListenerTest : public testing::Test {
protected:
    // A listener on the leased port; its start line is swallowed.
    void Init(RecordingListener& listener)
    {
        bool ok = true;
        const CapturedOutput output;
        listener.Init(ok);
        EXPECT_TRUE(ok);
    }
    std::string Line(const char* text) const { return text + std::to_string(m_lease.Port()) + "\n"; }

    PortLease m_lease;
    bool m_ok = true;
};

TEST_F(SocketListenerTest, InitMakesASocketBindsItOnAllAddressesAndSaysSo)
{
    RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 4);
    EXPECT_EQ(listener.Socket(), -1);
    EXPECT_FALSE(listener.OwnsSocket());
    CapturedOutput output;
    bool ok = true;
    listener.Init(ok);
    EXPECT_TRUE(ok && m_ok);
    EXPECT_EQ(output.Err(), Line("SocketListener: sock bound to port "));
    EXPECT_TRUE(test_support::IsBoundOnAllAddresses(m_lease.Port()));
    EXPECT_TRUE(listener.OwnsSocket());
    EXPECT_EQ(listener.Port(), m_lease.Port());
}

TEST_F(SocketListenerTest, TwoListenersMayShareOnePort)
{
    RecordingListener first(SharedSocket(), m_lease.Port(), m_ok, 4);
    RecordingListener second(SharedSocket(), m_lease.Port(), m_ok, 4);
    Init(first);
    Init(second);
}

TEST_F(SocketListenerTest, APortBoundWithoutReuseIsReported)
{
    m_lease.Release();
    const UniqueFd other(socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_TRUE(test_support::Bind(other.Get(), "127.0.0.2", m_lease.Port()));
    RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 4);
    CapturedOutput output;
    bool ok = true;
    listener.Init(ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(output.Err(), Line("SocketListener: bind failed on port "));
}

TEST_F(SocketListenerTest, ADescriptorThatIsNoSocketIsReportedTwice)
{
    RecordingListener listener(SharedSocket(open("/dev/null", O_RDWR | O_CLOEXEC)), m_lease.Port(), m_ok, 4);
    CapturedOutput output;
    bool ok = true;
    listener.Init(ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(output.Err(),
        Line("SocketListener: setsockopt(SO_REUSEADDR) failed on port ")
            + Line("SocketListener: bind failed on port "));
}

TEST_F(SocketListenerTest, AGivenSocketIsBoundToThePortAndStaysItsHolders)
{
    const SharedSocket socket(::socket(AF_INET, SOCK_DGRAM, 0));
    {
        RecordingListener listener(socket, m_lease.Port(), m_ok, 4);
        EXPECT_EQ(listener.Socket(), socket.Get());
        Init(listener);
        EXPECT_EQ(listener.Socket(), socket.Get());
        EXPECT_FALSE(listener.OwnsSocket());
        EXPECT_EQ(test_support::LocalPort(socket.Get()), m_lease.Port());
    }
    EXPECT_NE(fcntl(socket.Get(), F_GETFD), -1);
}

TEST_F(SocketListenerTest, TheOwnSocketIsClosedWithTheListener)
{
    int fd = -1;
    {
        RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 4);
        Init(listener);
        fd = listener.Socket();
    }
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_FALSE(test_support::IsBoundOnAllAddresses(m_lease.Port()));
}

TEST_F(SocketListenerTest, AMissingPoolIsReported)
{
    CapturedOutput output;
    {
        const test_support::FailNthAllocation failing(1);
        const RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 4);
    }
    EXPECT_FALSE(m_ok);
    EXPECT_EQ(output.Err(), "SocketListener: ERROR: PacketBufferInit failed!\n");
}

TEST_F(SocketListenerTest, ADatagramComesWithItsLengthAndItsSourceInNetworkOrder)
{
    RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 4);
    Init(listener);
    Receiver sender("127.0.0.2");
    sender.SendTo("127.0.0.1", m_lease.Port(), { 1, 2, 3 });
    sender.SendTo("127.0.0.1", m_lease.Port(), {});
    listener.Receive();
    listener.Receive();
    ASSERT_EQ(listener.m_arrivals.size(), 2U);
    EXPECT_EQ(listener.m_arrivals[0].data, (Bytes { 1, 2, 3 }));
    EXPECT_EQ(listener.m_arrivals[0].packet->partCount, 1U);
    EXPECT_EQ(listener.m_arrivals[0].addressNet, Net("127.0.0.2"));
    EXPECT_EQ(listener.m_arrivals[0].portNet, htons(sender.Port()));
    EXPECT_EQ(listener.m_arrivals[1].data, Bytes {});
}

TEST_F(SocketListenerTest, ADatagramOf1536BytesIsWholeAndALongerOneCut)
{
    RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 4);
    Init(listener);
    Receiver sender("127.0.0.2");
    for (const size_t size : { size_t { 1535 }, size_t { 1536 }, size_t { 1537 }, size_t { 9000 } })
        sender.SendTo("127.0.0.1", m_lease.Port(), test_support::Payload(size));
    for (int i = 0; i < 4; ++i)
        listener.Receive();
    ASSERT_EQ(listener.m_arrivals.size(), 4U);
    EXPECT_EQ(listener.m_arrivals[0].data, test_support::Payload(1535));
    for (int i = 1; i < 4; ++i)
        EXPECT_EQ(listener.m_arrivals[static_cast<size_t>(i)].data, test_support::Payload(1536));
}

TEST_F(SocketListenerTest, WithoutADatagramReceiveReturnsAtOnceAndPassesNothingOn)
{
    RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 4);
    Init(listener);
    EXPECT_FALSE(listener.Receive());
    EXPECT_TRUE(listener.m_arrivals.empty());
}

TEST_F(SocketListenerTest, ALookThatFindsNothingUsesUpNoBuffer)
{
    RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 2);
    Init(listener);
    Receiver sender("127.0.0.2");
    for (uint8_t i = 0; i < 3; ++i) {
        EXPECT_FALSE(listener.Receive());
        sender.SendTo("127.0.0.1", m_lease.Port(), { i });
        EXPECT_TRUE(listener.Receive());
    }
    EXPECT_NE(listener.m_arrivals[0].packet, listener.m_arrivals[1].packet);
    EXPECT_EQ(listener.m_arrivals[0].packet, listener.m_arrivals[2].packet);
}

TEST_F(SocketListenerTest, ItIsCrowdedWhileMoreWaitsThanIsReadAtOnce)
{
    RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 4);
    Init(listener);
    const uint32_t nowMs = GetSteadyMs();
    Receiver sender("127.0.0.2");
    for (int i = 0; i < 20; ++i) {
        sender.SendTo("127.0.0.1", m_lease.Port(), {});
        EXPECT_TRUE(listener.Receive());
    }
    EXPECT_FALSE(listener.IsCrowded(nowMs)) << "each was read before the next one came";
    for (int i = 0; i < 100; ++i)
        sender.SendTo("127.0.0.1", m_lease.Port(), {});
    for (int i = 0; i < 16; ++i)
        EXPECT_TRUE(listener.Receive());
    EXPECT_TRUE(listener.IsCrowded(GetSteadyMs()));
}

TEST_F(SocketListenerTest, ItHoldsWhatOneReadingBroughtAndSaysWhetherThereMayBeMore)
{
    RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 64);
    Init(listener);
    EXPECT_FALSE(listener.HoldsDatagram());
    EXPECT_FALSE(listener.MayHaveMore());
    Receiver sender("127.0.0.2");
    for (uint8_t i = 0; i < 17; ++i)
        sender.SendTo("127.0.0.1", m_lease.Port(), { i });
    for (uint8_t i = 0; i < 17; ++i) {
        EXPECT_TRUE(listener.Receive());
        ASSERT_EQ(listener.m_arrivals.size(), i + 1U);
        EXPECT_EQ(listener.m_arrivals.back().data, Bytes { i });
        EXPECT_EQ(listener.HoldsDatagram(), i != 15 && i != 16) << i; // 16 are read at once
        EXPECT_EQ(listener.MayHaveMore(), i != 16) << i;
    }
    EXPECT_FALSE(listener.Receive());
}

TEST_F(SocketListenerTest, TheReceiveBufferIsAsWideAsTheInputsOrAsTheSystemAllows)
{
    const UniqueFd plain(socket(AF_INET, SOCK_DGRAM, 0));
    constexpr int WANTED_BYTES = 524288;
    ASSERT_EQ(setsockopt(plain.Get(), SOL_SOCKET, SO_RCVBUF, &WANTED_BYTES, sizeof(WANTED_BYTES)), 0);
    RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 4);
    Init(listener);
    EXPECT_EQ(ReceiveBufferBytes(listener.Socket()), ReceiveBufferBytes(plain.Get()));
}

TEST_F(SocketListenerTest, BuffersAreReusedInRingOrder)
{
    RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 2);
    Init(listener);
    Receiver sender("127.0.0.2");
    for (uint8_t i = 0; i < 3; ++i) {
        sender.SendTo("127.0.0.1", m_lease.Port(), { i });
        listener.Receive();
    }
    ASSERT_EQ(listener.m_arrivals.size(), 3U);
    EXPECT_NE(listener.m_arrivals[0].packet, listener.m_arrivals[1].packet);
    EXPECT_EQ(listener.m_arrivals[0].packet, listener.m_arrivals[2].packet);
}

TEST_F(SocketListenerTest, TheLongestListARequestCanClaimStaysWithinZeroedMemory)
{
    RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 1);
    Init(listener);
    Receiver sender("127.0.0.2");
    sender.SendTo("127.0.0.1", m_lease.Port(), test_support::Payload(1536));
    listener.Receive();
    ASSERT_EQ(listener.m_arrivals.size(), 1U);
    const uint8_t* behind = listener.m_arrivals[0].packet->Data() + 1536;
    EXPECT_TRUE(
        std::all_of(behind, behind + LONGEST_REQUEST_LIST_BYTES, [](uint8_t byte) { return byte == 0; }));
}

TEST_F(SocketListenerTest, DuplicateModeSendsAnEmptyDatagramToThePortAndServesADuplicate)
{
    Receiver self("127.0.0.1", m_lease.Port());
    const SharedSocket socket(::socket(AF_INET, SOCK_DGRAM, 0));
    RecordingListener listener(socket, m_lease.Port(), m_ok, 1);
    listener.SetDuplicateMode(true);
    CapturedOutput output;
    bool ok = true;
    listener.Init(ok);
    EXPECT_TRUE(ok);
    EXPECT_NE(listener.Socket(), socket.Get());
    EXPECT_TRUE(listener.OwnsSocket());
    EXPECT_EQ(output.Err(),
        "New socket " + std::to_string(listener.Socket()) + " from " + std::to_string(socket.Get()) + "\n");
    EXPECT_EQ(self.Next(), Bytes {});
    EXPECT_EQ(self.SourcePort(), test_support::LocalPort(listener.Socket()));
}

TEST_F(SocketListenerTest, DuplicateModeReportsAnUnsentDatagramAndGoesOn)
{
    const SharedSocket socket(open("/dev/null", O_RDWR | O_CLOEXEC));
    RecordingListener listener(socket, m_lease.Port(), m_ok, 1);
    listener.SetDuplicateMode(true);
    CapturedOutput output;
    bool ok = true;
    listener.Init(ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(output.Err(),
        "cannot send data\nNew socket " + std::to_string(listener.Socket()) + " from "
            + std::to_string(socket.Get()) + "\n");
}

TEST_F(SocketListenerTest, WithoutASocketOfItsOwnItIsNotUsableAndSilent)
{
    RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 1);
    const test_support::FailCalls sockets(test_support::SystemCall::OpenSocket, EMFILE);
    CapturedOutput output;
    bool ok = true;
    listener.Init(ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(sockets.Count(), 1);
    EXPECT_EQ(listener.Socket(), -1);
    EXPECT_EQ(output.Err(), "");
}

TEST_F(SocketListenerTest, DuplicateModeWithoutADuplicateKeepsTheSocketAndIsNotUsable)
{
    const SharedSocket socket(::socket(AF_INET, SOCK_DGRAM, 0));
    RecordingListener listener(socket, m_lease.Port(), m_ok, 1);
    listener.SetDuplicateMode(true);
    CapturedOutput output; // duplicates descriptors itself
    const test_support::FailCalls duplicates(test_support::SystemCall::Duplicate, EMFILE);
    bool ok = true;
    listener.Init(ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(duplicates.Count(), 1);
    EXPECT_EQ(listener.Socket(), socket.Get());
    EXPECT_FALSE(listener.OwnsSocket());
    EXPECT_EQ(output.Err(), "");
}

TEST_F(SocketListenerTest, DuplicateModeNeedsASocket)
{
    RecordingListener listener(SharedSocket(), m_lease.Port(), m_ok, 1);
    listener.SetDuplicateMode(true);
    bool ok = true;
    listener.Init(ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(listener.Socket(), -1);
}

} // namespace
