#include "main/instance_lock.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <utility>

bool InstanceLock::Take(int32_t instance)
{
    UniqueFd socket(::socket(AF_INET, SOCK_DGRAM, 0));
    if (!socket.IsValid()) {
        perror("creating socket");
        return false;
    }
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(Port(instance));
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        return false;
    m_socket = std::move(socket);
    return true;
}

uint16_t InstanceLock::Port(int32_t instance)
{
    constexpr uint32_t FIRST_PORT = 32123;
    return static_cast<uint16_t>(FIRST_PORT + static_cast<uint32_t>(instance));
}
