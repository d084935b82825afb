#include "udp.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace {

constexpr int BUFFER_BYTES = 64 << 20; // nothing is lost here that the proxy has sent

} // namespace

Udp::Udp(const sockaddr_in& address) : m_nSocket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    const int on = 1;
    (void)setsockopt(m_nSocket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    (void)setsockopt(m_nSocket, SOL_SOCKET, SO_RCVBUFFORCE, &BUFFER_BYTES, sizeof(BUFFER_BYTES));
    if (m_nSocket < 0 || bind(m_nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        Die("bind");
}

Udp::Udp(Udp&& other) noexcept : m_nSocket(std::exchange(other.m_nSocket, -1)) {}

Udp& Udp::operator=(Udp&& other) noexcept
{
    std::swap(m_nSocket, other.m_nSocket);
    return *this;
}

Udp::~Udp()
{
    if (m_nSocket >= 0)
        close(m_nSocket);
}

void Udp::Send(const Bytes& data, const sockaddr_in& to) const
{
    if (sendto(m_nSocket, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to))
        < 0)
        Die("sendto");
}

InNamespace::InNamespace(const std::string& name) : m_nHome(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC))
{
    const int there = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (m_nHome < 0 || setns(there, CLONE_NEWNET) != 0)
        Die(name.c_str());
    close(there);
}

InNamespace::~InNamespace()
{
    if (setns(m_nHome, CLONE_NEWNET) != 0)
        Die("the way back");
    close(m_nHome);
}

sockaddr_in Address(const char* text, uint16_t port)
{
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (inet_pton(AF_INET, text, &address.sin_addr) != 1)
        Die(text);
    return address;
}

sockaddr_in Loopback(uint8_t third, uint8_t fourth, uint16_t port)
{
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(0x7F000000U | static_cast<uint32_t>(third) << 8 | fourth);
    return address;
}

void Die(const char* what)
{
    perror(what);
    _exit(2);
}
