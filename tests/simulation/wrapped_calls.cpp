// The calls of the code under test that reach the kernel or the thread library. The linker sends them here; while
// a machine of ours runs they are its, otherwise the C library's or the sanitizer's.
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include "simulation/machine.h"
#include "support/wrapped_calls.h"

using simulation::Machine;
using simulation::VirtualSockets;

namespace {

constexpr int64_t US_PER_SECOND = 1000000;

// What pthread_create was given. A thread's number on the machine is its fiber's plus 1, as 0 may mean none.
struct ThreadStart {
    void* (*entry)(void*);
    void* argument;
};

void RunThread(void* start)
{
    const ThreadStart copy = *static_cast<ThreadStart*>(start);
    delete static_cast<ThreadStart*>(start);
    Machine& machine = *Machine::Current();
    const auto number = static_cast<uint64_t>(machine.fibers.Current());
    machine.Note(simulation::Happened::ThreadStarts, number);
    (void)copy.entry(copy.argument);
    machine.Note(simulation::Happened::ThreadEnds, number);
}

// The machine, when the descriptor is one of its own.
Machine* OwnerOf(int fd)
{
    return VirtualSockets::IsOurs(fd) ? Machine::Current() : nullptr;
}

int Fail(int error)
{
    errno = error;
    return -1;
}

} // namespace

int __wrap_pthread_create(
    pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument)
{
    Machine* machine = Machine::Current();
    if (machine == nullptr)
        return __real_pthread_create(thread, attributes, entry, argument);
    *thread
        = static_cast<pthread_t>(machine->fibers.Start(RunThread, new ThreadStart { entry, argument }) + 1);
    return 0;
}

int __wrap_pthread_join(pthread_t thread, void** result)
{
    Machine* machine = Machine::Current();
    if (machine == nullptr)
        return __real_pthread_join(thread, result);
    machine->fibers.Join(static_cast<int>(thread) - 1);
    return 0;
}

int __wrap_pthread_detach(pthread_t thread)
{
    return Machine::Current() == nullptr ? __real_pthread_detach(thread) : 0;
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    Machine* machine = Machine::Current();
    if (machine == nullptr)
        return __real_pthread_mutex_lock(mutex);
    machine->LockMutex(mutex);
    return 0;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    Machine* machine = Machine::Current();
    if (machine == nullptr)
        return __real_pthread_mutex_unlock(mutex);
    machine->UnlockMutex(mutex);
    return 0;
}

int __wrap_socket(int domain, int type, int protocol)
{
    Machine* machine = Machine::Current();
    if (machine == nullptr)
        return __real_socket(domain, type, protocol);
    const int fd = machine->sockets.Make();
    machine->Note(simulation::Happened::SocketMade, static_cast<uint64_t>(fd),
        static_cast<uint64_t>(machine->fibers.Current()));
    machine->World()->OnSocketMade(fd);
    return fd;
}

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t length)
{
    const Machine* machine = OwnerOf(fd);
    if (machine == nullptr)
        return __real_setsockopt(fd, level, name, value, length);
    return machine->sockets.Find(fd) != nullptr ? 0 : Fail(EBADF);
}

int __wrap_bind(int fd, const sockaddr* address, socklen_t length)
{
    const Machine* machine = OwnerOf(fd);
    if (machine == nullptr)
        return __real_bind(fd, address, length);
    VirtualSockets::Socket* socket = machine->sockets.Find(fd);
    if (socket == nullptr)
        return Fail(EBADF);
    socket->port = ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port);
    return 0;
}

int __wrap_dup(int fd)
{
    Machine* machine = OwnerOf(fd);
    if (machine == nullptr)
        return __real_dup(fd);
    const int duplicate = machine->sockets.Duplicate(fd);
    machine->Note(
        simulation::Happened::SocketDuplicated, static_cast<uint64_t>(duplicate), static_cast<uint64_t>(fd));
    return duplicate >= 0 ? duplicate : Fail(EBADF);
}

int __wrap_dup2(int fd, int wanted)
{
    Machine* machine = OwnerOf(fd);
    if (machine == nullptr)
        return __real_dup2(fd, wanted);
    machine->Note(
        simulation::Happened::SocketDuplicated, static_cast<uint64_t>(wanted), static_cast<uint64_t>(fd));
    return machine->sockets.Duplicate(fd, wanted) >= 0 ? wanted : Fail(EBADF);
}

int __wrap_close(int fd)
{
    Machine* machine = OwnerOf(fd);
    if (machine == nullptr)
        return __real_close(fd);
    machine->Note(simulation::Happened::SocketClosed, static_cast<uint64_t>(fd));
    return machine->sockets.Close(fd) ? 0 : Fail(EBADF);
}

int __wrap_shutdown(int fd, int how)
{
    Machine* machine = OwnerOf(fd);
    if (machine == nullptr)
        return __real_shutdown(fd, how);
    machine->Note(simulation::Happened::SocketShut, static_cast<uint64_t>(fd));
    return Fail(machine->sockets.Find(fd) != nullptr ? ENOTCONN : EBADF);
}

int __wrap_poll(pollfd* wanted, nfds_t count, int timeoutMs)
{
    Machine* machine = Machine::Current();
    return machine != nullptr ? machine->Poll(wanted, count, timeoutMs)
                              : __real_poll(wanted, count, timeoutMs);
}

ssize_t __wrap_recvfrom(int fd, void* buffer, size_t room, int flags, sockaddr* source, socklen_t* length)
{
    Machine* machine = OwnerOf(fd);
    if (machine == nullptr)
        return __real_recvfrom(fd, buffer, room, flags, source, length);
    *length = sizeof(sockaddr_in);
    return machine->Receive(fd, buffer, room, reinterpret_cast<sockaddr_in*>(source));
}

ssize_t __wrap_sendto(
    int fd, const void* data, size_t length, int flags, const sockaddr* to, socklen_t toLength)
{
    Machine* machine = Machine::Current();
    if (machine == nullptr)
        return __real_sendto(fd, data, length, flags, to, toLength);
    return machine->Send(
        fd, *reinterpret_cast<const sockaddr_in*>(to), static_cast<const uint8_t*>(data), length);
}

ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags)
{
    Machine* machine = Machine::Current();
    if (machine == nullptr)
        return __real_sendmsg(fd, message, flags);
    uint8_t joined[4096];
    size_t length = 0;
    for (size_t i = 0; i < message->msg_iovlen; ++i) {
        const iovec& piece = message->msg_iov[i];
        if (length + piece.iov_len > sizeof(joined))
            return Fail(EMSGSIZE);
        std::memcpy(joined + length, piece.iov_base, piece.iov_len);
        length += piece.iov_len;
    }
    return machine->Send(fd, *static_cast<const sockaddr_in*>(message->msg_name), joined, length);
}

int __wrap_gettimeofday(timeval* now, void* zone)
{
    const Machine* machine = Machine::Current();
    if (machine == nullptr)
        return __real_gettimeofday(now, zone);
    machine->World()->OnTimeOfDay();
    const int64_t wallUs = machine->clock.WallUs();
    *now = { wallUs / US_PER_SECOND, wallUs % US_PER_SECOND };
    return 0;
}

int __wrap_clock_gettime(clockid_t clock, timespec* now)
{
    const Machine* machine = Machine::Current();
    if (machine == nullptr)
        return __real_clock_gettime(clock, now);
    machine->World()->OnSteadyTime();
    const int64_t us = clock == CLOCK_MONOTONIC ? machine->clock.SteadyUs() : machine->clock.WallUs();
    *now = { us / US_PER_SECOND, us % US_PER_SECOND * 1000 };
    return 0;
}

time_t __wrap_time(time_t* now)
{
    const Machine* machine = Machine::Current();
    if (machine == nullptr)
        return __real_time(now);
    const time_t seconds = machine->clock.WallUs() / US_PER_SECOND;
    if (now != nullptr)
        *now = seconds;
    return seconds;
}

int __wrap_nanosleep(const timespec* time, timespec* left)
{
    Machine* machine = Machine::Current();
    if (machine == nullptr)
        return __real_nanosleep(time, left);
    machine->Sleep(time->tv_sec * US_PER_SECOND + time->tv_nsec / 1000);
    return 0;
}
