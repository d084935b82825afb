#include <fcntl.h>
#include <net/if.h>
#include <net/route.h>
#include <sched.h>
#include <sys/ioctl.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "input/packet_buffer.h"
#include "input/packet_queue.h"
#include "input/udp_input.h"
#include "support/captured_output.h"
#include "support/loopback.h"
#include "support/no_free_descriptor.h"

namespace {

using namespace test_support;

constexpr char GROUP[] = "239.1.2.3";

// An input with a pool, a queue and counters of its own.
struct OwnInput {
    explicit OwnInput(in_addr_t multicastGroup = 0) : group(multicastGroup) {}
    void Run()
    {
        RunUdpInput({ running, PORT, group, *pool, queue, InputTransform(), inputBytes, sourceAddress });
    }

    static constexpr uint16_t PORT = 5000;

    const in_addr_t group;
    const std::unique_ptr<PacketBufferPool> pool = PacketBufferPool::createDefault(4);
    bool ok = true;
    PacketQueue queue { ok, 2, nullptr, nullptr };
    PlainWord<int32_t> running { 1 };
    PlainWord<uint32_t> inputBytes { 0 };
    char sourceAddress[INET_ADDRSTRLEN] = "";
};

TEST(UdpInputSocket, WithoutASocketTheInputEndsWithItsMessage)
{
    OwnInput input;
    CapturedOutput output;
    {
        const NoFreeDescriptor limit;
        input.Run();
    }
    EXPECT_EQ(output.Err(), "cannot open socket\n");
    EXPECT_EQ(output.Out(), "");
}

// Puts the calling thread, and the threads that it starts, into a network namespace of their own where all
// multicast goes through loopback.
void EnterNamespaceWithMulticastOnLoopback()
{
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "needs root";
    const UniqueFd control(socket(AF_INET, SOCK_DGRAM, 0));
    ifreq interface {
    };
    std::strcpy(interface.ifr_name, "lo");
    interface.ifr_flags = IFF_UP | IFF_MULTICAST;
    ASSERT_EQ(ioctl(control.Get(), SIOCSIFFLAGS, &interface), 0);
    const sockaddr_in destination = SocketAddress("224.0.0.0", 0);
    const sockaddr_in mask = SocketAddress("240.0.0.0", 0);
    rtentry route {};
    std::memcpy(&route.rt_dst, &destination, sizeof(destination));
    std::memcpy(&route.rt_genmask, &mask, sizeof(mask));
    route.rt_flags = RTF_UP;
    route.rt_dev = interface.ifr_name;
    ASSERT_EQ(ioctl(control.Get(), SIOCADDRT, &route), 0);
}

// Whether the namespace of the calling thread is a member of the group.
bool IsMember(const char* group)
{
    char entry[16];
    (void)snprintf(entry, sizeof(entry), "\t%08X ", Net(group));
    std::ifstream table("/proc/thread-self/net/igmp");
    const std::string text { std::istreambuf_iterator<char>(table), {} };
    return text.find(entry) != std::string::npos;
}

// A second descriptor of the socket of this process that is bound to the port at the group.
UniqueFd Duplicate(const char* group, uint16_t port)
{
    constexpr int LAST_LOOKED_AT = 256;
    for (int fd = 0; fd < LAST_LOOKED_AT; ++fd) {
        sockaddr_in local {};
        socklen_t size = sizeof(local);
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) == 0 && local.sin_family == AF_INET
            && local.sin_addr.s_addr == Net(group) && ntohs(local.sin_port) == port)
            return UniqueFd(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    }
    return UniqueFd();
}

// The test keeps the socket open beyond the end of the input, so that only leaving ends the membership.
void RunInputFromGroup()
{
    EnterNamespaceWithMulticastOnLoopback();
    if (testing::Test::HasFatalFailure())
        return;
    OwnInput input(Net(GROUP));
    EXPECT_FALSE(IsMember(GROUP));
    std::thread thread([&] { input.Run(); });
    EXPECT_TRUE(WaitFor([] { return IsMember(GROUP); }));
    Receiver encoder("127.0.0.1");
    encoder.SendTo(GROUP, OwnInput::PORT, Payload(10));
    EXPECT_NE(input.queue.pop(nullptr, LONGEST_WAIT_MS), nullptr); // all options are set
    const UniqueFd socket = Duplicate(GROUP, OwnInput::PORT);
    uint8_t loops = 1;
    socklen_t size = sizeof(loops);
    EXPECT_EQ(getsockopt(socket.Get(), IPPROTO_IP, IP_MULTICAST_LOOP, &loops, &size), 0);
    EXPECT_EQ(loops, 0);
    input.running = 0;
    thread.join();
    EXPECT_EQ(LocalPort(socket.Get()), OwnInput::PORT) << "still open";
    EXPECT_FALSE(IsMember(GROUP));
}

TEST(UdpInputSocket, AnInputFromAGroupDoesNotLoopAndLeavesTheGroupAtItsEnd)
{
    const CapturedOutput output;
    std::thread(RunInputFromGroup).join(); // the namespace ends with the thread
}

} // namespace
