#include "kernel_model/sockets.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace kernel_model {

int Sockets::Give(std::shared_ptr<Socket> socket)
{
    ++m_nMade;
    const auto free = std::find(m_descriptors.begin(), m_descriptors.end(), nullptr);
    const auto index = static_cast<int>(free - m_descriptors.begin());
    if (free == m_descriptors.end())
        m_descriptors.push_back(std::move(socket));
    else
        *free = std::move(socket);
    return FIRST + index;
}

int Sockets::Make()
{
    return Give(std::make_shared<Socket>());
}

int Sockets::Duplicate(int fd, int wanted)
{
    if (Find(fd) == nullptr)
        return -EBADF;
    const std::shared_ptr<Socket> socket = m_descriptors[static_cast<size_t>(fd - FIRST)];
    if (wanted < 0)
        return Give(socket);
    if (Find(wanted) == nullptr)
        return -EBADF; // the code under test only replaces what is open
    m_descriptors[static_cast<size_t>(wanted - FIRST)] = socket;
    return wanted;
}

int Sockets::Close(int fd)
{
    if (Find(fd) == nullptr)
        return -EBADF;
    m_descriptors[static_cast<size_t>(fd - FIRST)].reset();
    return 0;
}

bool Sockets::IsTaken(uint16_t port, const Socket& by) const
{
    return std::any_of(m_descriptors.begin(), m_descriptors.end(), [&](const std::shared_ptr<Socket>& other) {
        return other && other.get() != &by && other->port == port && !(other->mayShare && by.mayShare);
    });
}

int Sockets::Bind(int fd, uint16_t port)
{
    Socket* socket = Find(fd);
    if (socket == nullptr)
        return -EBADF;
    if (socket->port != 0)
        return -EINVAL;
    if (port == 0)
        GivePort(*socket);
    else if (IsTaken(port, *socket))
        return -EADDRINUSE;
    else
        socket->port = port;
    socket->boundAs = ++m_nBound;
    return 0;
}

void Sockets::GivePort(Socket& socket)
{
    if (socket.port != 0)
        return;
    while (IsTaken(m_usNextPort, Socket {}))
        ++m_usNextPort;
    socket.port = m_usNextPort++;
    socket.boundAs = ++m_nBound;
}

int Sockets::Connect(int fd, const sockaddr_in& peer)
{
    Socket* socket = Find(fd);
    if (socket == nullptr)
        return -EBADF;
    if (peer.sin_family == AF_UNSPEC) {
        socket->peer.reset();
        return 0;
    }
    GivePort(*socket);
    if (routedSourceNet == 0)
        return -ENETUNREACH;
    socket->peer = peer;
    socket->sourceNet = routedSourceNet;
    return 0; // an error that is pending stays so
}

sockaddr_in Sockets::LocalAddress(const Socket& socket) const
{
    sockaddr_in local {};
    local.sin_family = AF_INET;
    local.sin_port = htons(socket.port);
    local.sin_addr.s_addr = socket.peer ? socket.sourceNet : 0;
    return local;
}

Socket* Sockets::Find(int fd) const
{
    const auto index = static_cast<size_t>(fd - FIRST);
    return fd >= FIRST && index < m_descriptors.size() ? m_descriptors[index].get() : nullptr;
}

Socket* Sockets::FindReceiver(uint16_t port, in_addr_t fromNet, uint16_t fromPortNet) const
{
    Socket* last = nullptr;
    for (const std::shared_ptr<Socket>& socket : m_descriptors) {
        if (!socket || socket->port != port)
            continue;
        const std::optional<sockaddr_in>& peer = socket->peer;
        if (peer && peer->sin_addr.s_addr == fromNet && peer->sin_port == fromPortNet)
            return socket.get();
        if (!peer && (last == nullptr || last->boundAs < socket->boundAs))
            last = socket.get();
    }
    return last;
}

void Sockets::RaiseErrors(int error)
{
    for (const std::shared_ptr<Socket>& socket : m_descriptors) {
        if (socket && socket->peer)
            socket->pendingError = error;
    }
}

int Sockets::Open() const
{
    return static_cast<int>(m_descriptors.size())
        - static_cast<int>(std::count(m_descriptors.begin(), m_descriptors.end(), nullptr));
}

} // namespace kernel_model
