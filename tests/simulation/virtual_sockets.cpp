#include "simulation/virtual_sockets.h"

#include <algorithm>
#include <utility>

namespace simulation {

int VirtualSockets::Give(std::shared_ptr<Socket> socket)
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

int VirtualSockets::Make()
{
    return Give(std::make_shared<Socket>());
}

int VirtualSockets::Duplicate(int fd, int wanted)
{
    if (Find(fd) == nullptr)
        return -1;
    const std::shared_ptr<Socket> socket = m_descriptors[static_cast<size_t>(fd - FIRST)];
    if (wanted < 0)
        return Give(socket);
    if (Find(wanted) == nullptr)
        return -1; // the code under test only replaces what is open
    m_descriptors[static_cast<size_t>(wanted - FIRST)] = socket;
    return wanted;
}

bool VirtualSockets::Close(int fd)
{
    if (Find(fd) == nullptr)
        return false;
    m_descriptors[static_cast<size_t>(fd - FIRST)].reset();
    return true;
}

VirtualSockets::Socket* VirtualSockets::Find(int fd) const
{
    const auto index = static_cast<size_t>(fd - FIRST);
    return fd >= FIRST && index < m_descriptors.size() ? m_descriptors[index].get() : nullptr;
}

VirtualSockets::Socket* VirtualSockets::FindBound(uint16_t port) const
{
    for (const std::shared_ptr<Socket>& socket : m_descriptors) {
        if (socket && socket->port == port)
            return socket.get();
    }
    return nullptr;
}

int VirtualSockets::Open() const
{
    return static_cast<int>(m_descriptors.size())
        - static_cast<int>(std::count(m_descriptors.begin(), m_descriptors.end(), nullptr));
}

} // namespace simulation
