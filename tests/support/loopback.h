#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "input/packet_buffer.h"
#include "support/test_packets.h"

// UDP ends on loopback, packets and waits for the tests of everything that owns a socket.
namespace test_support {

// Far above what any wait needs: a test under a sanitizer on a busy machine must not fail for being slow.
constexpr int LONGEST_WAIT_MS = 20000;

// Looks again and again until the condition holds; false when it never did.
template <typename Condition>
bool WaitFor(Condition isTrue)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(LONGEST_WAIT_MS);
    while (!isTrue()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        (void)poll(nullptr, 0, 1);
    }
    return true;
}

inline in_addr_t Net(const char* dottedQuad)
{
    return inet_addr(dottedQuad);
}

inline sockaddr_in SocketAddress(const char* address, uint16_t port)
{
    sockaddr_in result {};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = Net(address);
    return result;
}

inline bool Bind(int fd, const char* address, uint16_t port)
{
    const sockaddr_in local = SocketAddress(address, port);
    return bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0;
}

inline uint16_t LocalPort(int fd)
{
    sockaddr_in local {};
    socklen_t size = sizeof(local);
    (void)getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size);
    return ntohs(local.sin_port);
}

inline void AllowReuse(int fd)
{
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
}

// A UDP port that was free and that nobody else gets while this object lives: below those that the system gives by itself
// (from 32768 on), and held on an address that no test uses, with reuse allowed for the sockets under test.
class PortLease {
public:
    PortLease()
    {
        // Other processes begin elsewhere.
        static std::atomic<unsigned> s_next { static_cast<unsigned>(getpid()) * 37 };
        for (unsigned i = 0; i < PORTS && !m_socket.IsValid(); ++i)
            Take(static_cast<uint16_t>(FIRST_PORT + s_next++ % PORTS));
        EXPECT_TRUE(m_socket.IsValid()) << "no port is free";
    }

    uint16_t Port() const { return m_usPort; }
    void Release() { m_socket.Reset(); }

private:
    static constexpr unsigned FIRST_PORT = 20000;
    static constexpr unsigned PORTS = 12000;

    // Had on all addresses and without reuse it is nobody else's, neither another socket's nor another lease's.
    void Take(uint16_t port)
    {
        const UniqueFd exclusive(::socket(AF_INET, SOCK_DGRAM, 0));
        if (!Bind(exclusive.Get(), "0.0.0.0", port))
            return;
        UniqueFd held(::socket(AF_INET, SOCK_DGRAM, 0));
        AllowReuse(exclusive.Get());
        AllowReuse(held.Get());
        if (!Bind(held.Get(), "127.255.255.254", port))
            return;
        m_socket = std::move(held);
        m_usPort = port;
    }

    UniqueFd m_socket;
    uint16_t m_usPort = 0;
};

// What one look at the system's table says of UnreadBytes. It may miss a socket that is there: the table is written a
// page at a time, and what moves up when another socket ends meanwhile is in no page.
inline std::optional<uint32_t> LookForUnreadBytes(uint16_t port)
{
    char wanted[24];
    (void)snprintf(wanted, sizeof(wanted), "00000000:%04X", unsigned { port });
    std::ifstream table("/proc/net/udp");
    for (std::string line; std::getline(table, line);) {
        char local[24] = "";
        uint32_t unread = 0;
        if (sscanf(line.c_str(), " %*u: %23s %*s %*x %*x:%" SCNx32, local, &unread) == 2
            && strcmp(local, wanted) == 0)
            return unread;
    }
    return std::nullopt;
}

// What waits unread at the UDP socket bound to the port on all addresses, in bytes as the system counts them, its own
// records included; nothing when there is no such socket.
inline std::optional<uint32_t> UnreadBytes(uint16_t port)
{
    constexpr int LOOKS = 10;
    std::optional<uint32_t> unread;
    for (int i = 0; i < LOOKS && !unread; ++i)
        unread = LookForUnreadBytes(port);
    return unread;
}

// Whether a UDP socket is bound to the port on all addresses. Unlike an attempt to bind, looking does not get
// in the way of the socket that is waited for.
inline bool IsBoundOnAllAddresses(uint16_t port)
{
    return UnreadBytes(port).has_value();
}

// A receiver: one UDP socket on a loopback address.
class Receiver {
public:
    explicit Receiver(const char* address, uint16_t port = 0) : m_socket(::socket(AF_INET, SOCK_DGRAM, 0))
    {
        AllowReuse(m_socket.Get());
        EXPECT_TRUE(Bind(m_socket.Get(), address, port)) << address << ":" << port;
    }

    uint16_t Port() const { return LocalPort(m_socket.Get()); }
    int Fd() const { return m_socket.Get(); }

    bool HasDatagram(int timeoutMs = 0) const
    {
        pollfd wanted { m_socket.Get(), POLLIN, 0 };
        return poll(&wanted, 1, timeoutMs) == 1;
    }

    // The next datagram; fails the test when none comes.
    Bytes Next()
    {
        Bytes data(65536);
        m_source = {};
        if (!HasDatagram(LONGEST_WAIT_MS)) {
            ADD_FAILURE() << "no datagram came";
            return {};
        }
        socklen_t size = sizeof(m_source);
        const ssize_t count = recvfrom(
            m_socket.Get(), data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&m_source), &size);
        data.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return data;
    }

    // Where the last datagram came from.
    uint16_t SourcePort() const { return ntohs(m_source.sin_port); }

    void SendTo(const char* address, uint16_t port, const Bytes& data)
    {
        const sockaddr_in to = SocketAddress(address, port);
        EXPECT_EQ(sendto(m_socket.Get(), data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                      sizeof(to)),
            static_cast<ssize_t>(data.size()));
    }

private:
    UniqueFd m_socket;
    sockaddr_in m_source {};
};

// A packet with memory of its own, in one or two pieces.
class OwnedPacket {
public:
    explicit OwnedPacket(Bytes data) : m_data(std::move(data))
    {
        m_packet.partCount = 1;
        m_packet.parts[0] = m_data.data();
        m_packet.partLengths[0] = static_cast<int32_t>(m_data.size());
    }
    OwnedPacket(Bytes first, Bytes second) : OwnedPacket(std::move(first))
    {
        m_second = std::move(second);
        m_packet.partCount = 2;
        m_packet.parts[1] = m_second.data();
        m_packet.partLengths[1] = static_cast<int32_t>(m_second.size());
    }
    OwnedPacket(const OwnedPacket&) = delete;
    OwnedPacket& operator=(const OwnedPacket&) = delete;

    PacketBuffer* Get() { return &m_packet; }
    const Bytes& Data() const { return m_data; }

private:
    Bytes m_data;
    Bytes m_second;
    PacketBuffer m_packet {};
};

inline uint16_t RtpSeq(const Bytes& data)
{
    return data.size() < 4 ? uint16_t { 0 } : static_cast<uint16_t>((data[2] << 8) | data[3]);
}

inline int PayloadType(const Bytes& data)
{
    return data.size() < 2 ? -1 : data[1] & 0x7F;
}

// The bytes of a datagram but for the RTP time stamp.
inline Bytes WithoutTimestamp(Bytes data)
{
    if (data.size() >= 8)
        std::fill(data.begin() + 4, data.begin() + 8, uint8_t { 0 });
    return data;
}

// The datagram with a stream tag before it.
inline Bytes Tagged(uint32_t streamId, const Bytes& data)
{
    return Concat({ Tag(STREAM_TAG_MAGIC, streamId), data });
}

} // namespace test_support
