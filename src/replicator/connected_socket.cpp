#include "replicator/connected_socket.h"

#include <sys/socket.h>

#include "replicator/send_mode.h"

namespace {

sockaddr_in LocalAddress(int fd)
{
    sockaddr_in local {};
    socklen_t size = sizeof(local);
    (void)getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size);
    return local;
}

} // namespace

bool ConnectSocket(int fd, const sockaddr_in& address)
{
    return !SENDS_ARE_PLAIN && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

in_addr_t SourceOf(int fd)
{
    return LocalAddress(fd).sin_addr.s_addr;
}

in_addr_t RoutedSource(const sockaddr_in& address)
{
    const UniqueFd probe(socket(AF_INET, SOCK_DGRAM, 0));
    return probe.IsValid() && ConnectSocket(probe.Get(), address) ? SourceOf(probe.Get()) : 0;
}

UniqueFd ConnectedTwin(int fd, const sockaddr_in& address)
{
    UniqueFd twin(socket(AF_INET, SOCK_DGRAM, 0));
    const int on = 1;
    sockaddr_in local = LocalAddress(fd);
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    if (!twin.IsValid() || setsockopt(twin.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0
        || bind(twin.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0
        || !ConnectSocket(twin.Get(), address))
        twin.Reset();
    return twin;
}
