#include "arqrx/program/media_sockets.h"

#include <linux/sock_diag.h>
#include <sys/socket.h>

#include <algorithm>
#include <ctime>

#include "common/clock.h"

namespace arqrx {

namespace {

constexpr int QUESTION_BUFFER_BYTES = 256 * 1024; // pings and requests only
constexpr int READS_A_PASS = 8; // so that play-out keeps its time under a flood
constexpr uint32_t LOOPBACK_NET = 127U << 24;
constexpr uint32_t NET_MASK = 255U << 24;
constexpr uint32_t OTHER_LOOPBACK_ADDRESS = LOOPBACK_NET | 2; // 127.0.0.2

// Where the proxy's own host is spoken from. It takes a receiver on 127.0.0.1 for a configured one, and would send the
// stream to its own ping port.
common::Endpoint LocalFor(const Options& options, uint32_t proxyAddress)
{
    if (options.listen)
        return *options.listen;
    common::Endpoint local = options.bind.value_or(common::Endpoint {});
    if (local.address == 0 && (proxyAddress & NET_MASK) == LOOPBACK_NET)
        local.address = OTHER_LOOPBACK_ADDRESS;
    return local;
}

uint64_t DropsOf(const common::UdpSocket& socket)
{
    std::array<uint32_t, SK_MEMINFO_VARS> counts {};
    socklen_t length = sizeof(counts);
    if (!socket.IsOpen() || getsockopt(socket.Fd(), SOL_SOCKET, SO_MEMINFO, counts.data(), &length) != 0)
        return 0;
    return counts[SK_MEMINFO_DROPS];
}

} // namespace

bool MediaSockets::Open(const Options& options, uint32_t proxyAddress, std::string& problem)
{
    if (options.group && !OpenGroup(options, problem))
        return false;
    if ((options.listen || proxyAddress != 0) && !OpenUnicast(options, proxyAddress, problem))
        return false;
    if (proxyAddress == 0)
        return true;
    if (options.settings.isPinging)
        m_pingTarget = { proxyAddress, options.pingPort };
    m_requestTarget = { proxyAddress, options.requestPort };
    return true;
}

bool MediaSockets::OpenUnicast(const Options& options, uint32_t proxyAddress, std::string& problem)
{
    const common::Endpoint local = LocalFor(options, proxyAddress);
    if (!m_unicast.Open() || !m_unicast.Bind(local)) {
        problem = "cannot receive on " + common::EndpointText(local) + ": " + m_unicast.BindProblem();
        return false;
    }
    m_unicast.SetBuffers(options.receiveBufferBytes, QUESTION_BUFFER_BYTES);
    return true;
}

bool MediaSockets::OpenGroup(const Options& options, std::string& problem)
{
    const common::Endpoint& group = *options.group;
    if (m_group.Open() && m_group.ShareAddress() && m_group.Bind(group)
        && m_group.JoinGroup(group.address, options.networkInterface)) {
        m_group.SetBuffers(options.receiveBufferBytes, QUESTION_BUFFER_BYTES);
        return true;
    }
    problem = "cannot join " + common::EndpointText(group) + ": " + m_group.Problem()
        + "; see the interfaces with: ip -brief addr";
    return false;
}

void MediaSockets::SetProxy(uint32_t address)
{
    m_requestTarget.address = address;
    if (m_pingTarget.port != 0)
        m_pingTarget.address = address;
}

void MediaSockets::Read(const Taker& take)
{
    for (const common::UdpSocket* socket : { &m_unicast, &m_group }) {
        if (socket->IsOpen())
            ReadSocket(socket->Fd(), take);
    }
}

void MediaSockets::ReadSocket(int fd, const Taker& take)
{
    for (int i = 0; i < READS_A_PASS; ++i) {
        const int read = m_reader.Read(fd);
        const int64_t nowUs = common::NowUs();
        for (int k = 0; k < read; ++k)
            take(m_reader.Data(k), nowUs);
        if (read < static_cast<int>(m_reader.Capacity()))
            return;
    }
}

void MediaSockets::Send(const Transmit& transmit)
{
    const common::Endpoint& target = transmit.port == ProxyPort::Ping ? m_pingTarget : m_requestTarget;
    if (target.port == 0)
        return; // nobody to tell
    const sockaddr_in address = common::ToSockaddr(target);
    const ssize_t sent = sendto(m_unicast.Fd(), transmit.bytes.data(), transmit.bytes.size(), MSG_DONTWAIT,
        reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    if (sent < 0)
        ++m_nSendFailures; // lost like any datagram: what it was for is done again in time
}

void MediaSockets::Wait(int64_t untilUs, int other) const
{
    std::array<pollfd, 3> waiting { pollfd { m_unicast.Fd(), POLLIN, 0 }, pollfd { m_group.Fd(), POLLIN, 0 },
        pollfd { other, POLLIN, 0 } };
    const int64_t waitUs = std::max<int64_t>(0, untilUs - common::NowUs());
    const timespec wait { waitUs / common::US_PER_SECOND, waitUs % common::US_PER_SECOND * 1000 };
    (void)ppoll(waiting.data(), waiting.size(), &wait, nullptr);
}

uint64_t MediaSockets::Drops() const
{
    return DropsOf(m_unicast) + DropsOf(m_group);
}

} // namespace arqrx
