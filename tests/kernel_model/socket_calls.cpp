// Socket calls of the C library that the linker leads here (tests/CMakeLists.txt has the list): to the current kernel
// of ours, or else to the system's. Descriptors that are not ours are the system's in any case.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "kernel_model/socket_kernel.h"
#include "support/wrapped_calls.h"

using kernel_model::SocketKernel;
using kernel_model::Sockets;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names

namespace {

// The kernel, when the descriptor is one of its own.
SocketKernel* OwnerOf(int fd)
{
    return Sockets::IsOurs(fd) ? SocketKernel::Current() : nullptr;
}

// A negative result as the C library tells it.
template <typename Number>
Number Told(Number result)
{
    if (result >= 0)
        return result;
    errno = static_cast<int>(-result);
    return -1;
}

bool IsInet(const sockaddr* address, socklen_t size)
{
    return address != nullptr && size >= sizeof(sockaddr_in);
}

msghdr MessageTo(const sockaddr* address, socklen_t size, iovec& piece)
{
    msghdr header {};
    header.msg_name = const_cast<sockaddr*>(address); // the interface is not const, sending only reads
    header.msg_namelen = size;
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    return header;
}

} // namespace

int __wrap_socket(int domain, int type, int protocol)
{
    SocketKernel* kernel = SocketKernel::Current();
    return kernel != nullptr ? Told(kernel->Make()) : __real_socket(domain, type, protocol);
}

int __wrap_close(int fd)
{
    SocketKernel* kernel = OwnerOf(fd);
    return kernel != nullptr ? Told(kernel->Close(fd)) : __real_close(fd);
}

int __wrap_dup(int fd)
{
    SocketKernel* kernel = OwnerOf(fd);
    return kernel != nullptr ? Told(kernel->Duplicate(fd)) : __real_dup(fd);
}

int __wrap_dup2(int fd, int place)
{
    SocketKernel* kernel = OwnerOf(fd);
    return kernel != nullptr ? Told(kernel->Duplicate(fd, place)) : __real_dup2(fd, place);
}

int __wrap_bind(int fd, const sockaddr* address, socklen_t size)
{
    SocketKernel* kernel = OwnerOf(fd);
    if (kernel == nullptr)
        return __real_bind(fd, address, size);
    if (!IsInet(address, size))
        return Told(-EINVAL);
    return Told(kernel->sockets.Bind(fd, ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port)));
}

int __wrap_connect(int fd, const sockaddr* address, socklen_t size)
{
    SocketKernel* kernel = OwnerOf(fd);
    if (kernel == nullptr)
        return __real_connect(fd, address, size);
    sockaddr_in peer {};
    if (address == nullptr || size < sizeof(sa_family_t)
        || (address->sa_family != AF_UNSPEC && size < sizeof(peer)))
        return Told(-EINVAL);
    std::memcpy(&peer, address, size < sizeof(peer) ? size : sizeof(peer));
    return Told(kernel->sockets.Connect(fd, peer));
}

int __wrap_getsockname(int fd, sockaddr* address, socklen_t* size)
{
    SocketKernel* kernel = OwnerOf(fd);
    if (kernel == nullptr)
        return __real_getsockname(fd, address, size);
    const kernel_model::Socket* socket = kernel->sockets.Find(fd);
    if (socket == nullptr)
        return Told(-EBADF);
    const sockaddr_in local = kernel->sockets.LocalAddress(*socket);
    std::memcpy(address, &local, *size < sizeof(local) ? *size : sizeof(local));
    *size = sizeof(local);
    return 0;
}

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size)
{
    SocketKernel* kernel = OwnerOf(fd);
    return kernel != nullptr ? Told(kernel->SetOption(fd, level, name, value, size))
                             : __real_setsockopt(fd, level, name, value, size);
}

int __wrap_getsockopt(int fd, int level, int name, void* value, socklen_t* size)
{
    SocketKernel* kernel = OwnerOf(fd);
    return kernel != nullptr ? Told(kernel->GetOption(fd, level, name, value, size))
                             : __real_getsockopt(fd, level, name, value, size);
}

int __wrap_shutdown(int fd, int how)
{
    SocketKernel* kernel = OwnerOf(fd);
    return kernel != nullptr ? Told(kernel->ShutDown(fd)) : __real_shutdown(fd, how);
}

ssize_t __wrap_sendto(
    int fd, const void* data, size_t length, int flags, const sockaddr* address, socklen_t size)
{
    SocketKernel* kernel = OwnerOf(fd);
    if (kernel == nullptr)
        return __real_sendto(fd, data, length, flags, address, size);
    iovec piece { const_cast<void*>(data), length }; // as above
    return Told(kernel->Send(fd, MessageTo(address, size, piece), flags));
}

ssize_t __wrap_send(int fd, const void* data, size_t length, int flags)
{
    return OwnerOf(fd) != nullptr ? __wrap_sendto(fd, data, length, flags, nullptr, 0)
                                  : __real_send(fd, data, length, flags);
}

ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags)
{
    SocketKernel* kernel = OwnerOf(fd);
    return kernel != nullptr ? Told(kernel->Send(fd, *message, flags)) : __real_sendmsg(fd, message, flags);
}

int __wrap_sendmmsg(int fd, mmsghdr* messages, unsigned count, int flags)
{
    SocketKernel* kernel = OwnerOf(fd);
    return kernel != nullptr ? Told(kernel->SendMany(fd, messages, count, flags))
                             : __real_sendmmsg(fd, messages, count, flags);
}

ssize_t __wrap_recvfrom(int fd, void* buffer, size_t room, int flags, sockaddr* source, socklen_t* size)
{
    SocketKernel* kernel = OwnerOf(fd);
    if (kernel == nullptr)
        return __real_recvfrom(fd, buffer, room, flags, source, size);
    iovec piece { buffer, room };
    msghdr header = MessageTo(source, size != nullptr ? *size : 0, piece);
    const ssize_t got = kernel->Receive(fd, header, flags);
    if (got >= 0 && size != nullptr)
        *size = header.msg_namelen;
    return Told(got);
}

// With a time-out of the call's own it would mean something else, which nobody here wants.
int __wrap_recvmmsg(int fd, mmsghdr* messages, unsigned count, int flags, timespec* timeout)
{
    SocketKernel* kernel = OwnerOf(fd);
    if (kernel == nullptr)
        return __real_recvmmsg(fd, messages, count, flags, timeout);
    return timeout != nullptr ? Told(-EINVAL) : Told(kernel->ReceiveMany(fd, messages, count, flags));
}

int __wrap_poll(pollfd* wanted, nfds_t count, int timeoutMs)
{
    SocketKernel* kernel = SocketKernel::Current();
    return kernel != nullptr ? Told(kernel->Poll(wanted, count, timeoutMs))
                             : __real_poll(wanted, count, timeoutMs);
}
// NOLINTEND(bugprone-reserved-identifier)
