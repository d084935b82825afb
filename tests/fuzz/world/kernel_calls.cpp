// Calls of the C library that the linker leads here (CMakeLists.txt has the list): to the kernel that the calling
// thread has entered, or else, for the fuzzer itself, to the C library.
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "fuzz/world/kernel.h"
#include "fuzz/world/require.h"
#include "support/wrapped_calls.h"

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names

namespace {

Kernel* Entered()
{
    return Kernel::Current();
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

const sockaddr_in& Inet(const void* address, socklen_t size)
{
    Require(address != nullptr && size == sizeof(sockaddr_in), "every datagram names its destination");
    return *static_cast<const sockaddr_in*>(address);
}

int ReadyCount(const Kernel& kernel, pollfd* wanted, nfds_t count)
{
    return MarkReadable(
        wanted, count, [&](int fd) { return kernel.IsOpen(fd); },
        [&](int fd) { return kernel.IsReadable(fd); });
}

} // namespace

int __wrap_pthread_create(
    pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument)
{
    if (!Entered())
        return __real_pthread_create(thread, attributes, entry, argument);
    Entered()->fibers.Start(entry, argument);
    return 0;
}

int __wrap_pthread_detach(pthread_t thread)
{
    return Entered() ? 0 : __real_pthread_detach(thread);
}

int __wrap_nanosleep(const timespec* time, timespec* left)
{
    if (!Entered())
        return __real_nanosleep(time, left);
    Fibers& fibers = Entered()->fibers;
    const auto ms = static_cast<uint64_t>(time->tv_sec * 1000 + time->tv_nsec / 1000000);
    fibers.Pause(fibers.NowMs() + ms, false);
    return 0;
}

int __wrap_gettimeofday(timeval* time, void* zone)
{
    if (!Entered())
        return __real_gettimeofday(time, zone);
    *time = Entered()->WallClock();
    return 0;
}

int __wrap_clock_gettime(clockid_t clock, timespec* time)
{
    if (!Entered())
        return __real_clock_gettime(clock, time);
    const uint64_t ms = Entered()->fibers.NowMs();
    *time = { static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000 };
    return 0;
}

time_t __wrap_time(time_t* time)
{
    if (!Entered())
        return __real_time(time);
    const time_t now = Entered()->WallClock().tv_sec;
    if (time != nullptr)
        *time = now;
    return now;
}

int __wrap_socket(int domain, int type, int protocol)
{
    if (!Entered())
        return __real_socket(domain, type, protocol);
    return Told(Entered()->Open());
}

int __wrap_close(int fd)
{
    return Entered() && Kernel::IsOurs(fd) ? Told(Entered()->Close(fd)) : __real_close(fd);
}

int __wrap_dup(int fd)
{
    return Entered() ? Told(Entered()->Duplicate(fd)) : __real_dup(fd);
}

int __wrap_dup2(int fd, int place)
{
    return Entered() ? Told(Entered()->DuplicateTo(fd, place)) : __real_dup2(fd, place);
}

int __wrap_bind(int fd, const sockaddr* address, socklen_t size)
{
    if (!Entered())
        return __real_bind(fd, address, size);
    return Told(Entered()->Bind(fd, ntohs(Inet(address, size).sin_port)));
}

int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t size)
{
    return Entered() ? 0 : __real_setsockopt(fd, level, option, value, size);
}

int __wrap_getsockopt(int fd, int level, int option, void* value, socklen_t* size)
{
    if (!Entered())
        return __real_getsockopt(fd, level, option, value, size);
    constexpr int RECEIVE_BUFFER_BYTES = 212992;
    std::memcpy(value, &RECEIVE_BUFFER_BYTES, sizeof(RECEIVE_BUFFER_BYTES));
    return 0;
}

int __wrap_shutdown(int fd, int how)
{
    return Entered() ? Told(Entered()->ShutDown(fd)) : __real_shutdown(fd, how);
}

ssize_t __wrap_sendto(
    int fd, const void* data, size_t length, int flags, const sockaddr* address, socklen_t size)
{
    if (!Entered())
        return __real_sendto(fd, data, length, flags, address, size);
    const std::string datagram(static_cast<const char*>(data), length); // reads every byte of it
    return Told(Entered()->Send(fd, datagram, Inet(address, size)));
}

ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags)
{
    if (!Entered())
        return __real_sendmsg(fd, message, flags);
    std::string datagram;
    for (size_t i = 0; i < message->msg_iovlen; ++i)
        datagram.append(static_cast<const char*>(message->msg_iov[i].iov_base), message->msg_iov[i].iov_len);
    return Told(Entered()->Send(fd, datagram, Inet(message->msg_name, message->msg_namelen)));
}

ssize_t __wrap_recvfrom(
    int fd, void* buffer, size_t size, int flags, sockaddr* source, socklen_t* sourceBytes)
{
    if (!Entered())
        return __real_recvfrom(fd, buffer, size, flags, source, sourceBytes);
    Require(
        source != nullptr && *sourceBytes == sizeof(sockaddr_in), "a receiver asks who sent the datagram");
    return Told(Entered()->Receive(fd, static_cast<uint8_t*>(buffer), size, (flags & MSG_DONTWAIT) == 0,
        reinterpret_cast<sockaddr_in*>(source)));
}

int __wrap_poll(pollfd* wanted, nfds_t count, int timeoutMs)
{
    if (!Entered())
        return __real_poll(wanted, count, timeoutMs);
    const int ready = ReadyCount(*Entered(), wanted, count);
    if (ready != 0)
        return ready;
    Fibers& fibers = Entered()->fibers;
    fibers.Pause(fibers.NowMs() + static_cast<uint64_t>(timeoutMs), true);
    return ReadyCount(*Entered(), wanted, count);
}

// No name leaves the process. The buffer is asked to be larger once.
int __wrap_gethostbyname_r(
    const char* name, hostent* host, char* buffer, size_t size, hostent** result, int* error)
{
    if (!Entered())
        return __real_gethostbyname_r(name, host, buffer, size, result, error);
    constexpr size_t FIRST_SIZE = 1024;
    *result = nullptr;
    *error = HOST_NOT_FOUND;
    const in_addr_t address = Entered()->onLookUp ? Entered()->onLookUp(name) : 0;
    if (address == 0)
        return 0;
    if (size <= FIRST_SIZE)
        return ERANGE;
    auto** list = reinterpret_cast<char**>(buffer);
    char* place = buffer + 2 * sizeof(char*);
    std::memcpy(place, &address, sizeof(address));
    list[0] = place;
    list[1] = nullptr;
    *host = {};
    host->h_addrtype = AF_INET;
    host->h_length = sizeof(address);
    host->h_addr_list = list;
    *result = host;
    return 0;
}
// NOLINTEND(bugprone-reserved-identifier)
