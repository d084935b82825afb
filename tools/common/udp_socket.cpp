#include "common/udp_socket.h"

#include <cerrno>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <system_error>

namespace common {

namespace {

const sockaddr* Plain(const sockaddr_in& address)
{
    return static_cast<const sockaddr*>(static_cast<const void*>(&address));
}

// By address or by name; an empty text is the system's choice. False: there is no such interface.
bool FindInterface(const std::string& text, ip_mreqn& request)
{
    if (text.empty())
        return true;
    uint32_t address = 0;
    if (ParseAddress(text, address)) {
        request.imr_address.s_addr = htonl(address);
        return true;
    }
    request.imr_ifindex = static_cast<int>(if_nametoindex(text.c_str()));
    return request.imr_ifindex != 0;
}

} // namespace

bool UdpSocket::Fail(const std::string& what)
{
    m_nError = errno;
    m_problem = what + ": " + std::generic_category().message(m_nError);
    return false;
}

bool UdpSocket::SetOption(int level, int name, const void* value, unsigned sizeBytes, const std::string& what)
{
    return setsockopt(Fd(), level, name, value, sizeBytes) == 0 || Fail(what);
}

bool UdpSocket::Open()
{
    m_fd.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    return IsOpen() || Fail("cannot open a socket");
}

bool UdpSocket::ShareAddress()
{
    const int on = 1;
    return SetOption(SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on), "cannot share an address");
}

bool UdpSocket::Bind(const Endpoint& local)
{
    const sockaddr_in address = ToSockaddr(local);
    return bind(Fd(), Plain(address), sizeof(address)) == 0 || Fail("cannot use " + EndpointText(local));
}

bool UdpSocket::Connect(const Endpoint& peer)
{
    const sockaddr_in address = ToSockaddr(peer);
    return connect(Fd(), Plain(address), sizeof(address)) == 0 || Fail("cannot reach " + EndpointText(peer));
}

void UdpSocket::SetBuffers(int receiveBytes, int sendBytes)
{
    // The first may exceed the system's limit and needs a right for it.
    if (setsockopt(Fd(), SOL_SOCKET, SO_RCVBUFFORCE, &receiveBytes, sizeof(receiveBytes)) != 0)
        (void)setsockopt(Fd(), SOL_SOCKET, SO_RCVBUF, &receiveBytes, sizeof(receiveBytes));
    if (setsockopt(Fd(), SOL_SOCKET, SO_SNDBUFFORCE, &sendBytes, sizeof(sendBytes)) != 0)
        (void)setsockopt(Fd(), SOL_SOCKET, SO_SNDBUF, &sendBytes, sizeof(sendBytes));
}

bool UdpSocket::JoinGroup(uint32_t group, const std::string& networkInterface)
{
    ip_mreqn request {};
    request.imr_multiaddr.s_addr = htonl(group);
    if (!FindInterface(networkInterface, request))
        return Fail("there is no interface '" + networkInterface + "'");
    return SetOption(IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request),
        "cannot join the group " + AddressText(group));
}

bool UdpSocket::SetGroupOutput(const std::string& networkInterface, int timeToLive, bool loopBack)
{
    ip_mreqn request {};
    const int heard = loopBack ? 1 : 0;
    if (!FindInterface(networkInterface, request))
        return Fail("there is no interface '" + networkInterface + "'");
    if (!networkInterface.empty()
        && !SetOption(IPPROTO_IP, IP_MULTICAST_IF, &request, sizeof(request),
            "cannot send to groups on '" + networkInterface + "'"))
        return false;
    return SetOption(
               IPPROTO_IP, IP_MULTICAST_TTL, &timeToLive, sizeof(timeToLive), "cannot set the time to live")
        && SetOption(
            IPPROTO_IP, IP_MULTICAST_LOOP, &heard, sizeof(heard), "cannot set the loop back of groups");
}

std::string UdpSocket::BindProblem() const
{
    switch (m_nError) {
    case EADDRINUSE:
        return m_problem + "; see who has the port with: ss -ulpn";
    case EADDRNOTAVAIL:
        return m_problem + "; see this machine's addresses with: ip -brief addr";
    case EACCES:
        return m_problem + "; take a port from 1024 on, or start it as root";
    default:
        return m_problem;
    }
}

Endpoint UdpSocket::Local() const
{
    sockaddr_in address {};
    socklen_t sizeBytes = sizeof(address);
    void* room = &address;
    if (getsockname(Fd(), static_cast<sockaddr*>(room), &sizeBytes) != 0)
        return {};
    return FromSockaddr(address);
}

} // namespace common
