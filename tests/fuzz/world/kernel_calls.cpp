// Calls of the C library that the linker leads here (CMakeLists.txt has the list): to the kernel that the calling
// thread has entered, or else, for the fuzzer itself, to the C library. Those that have to do with sockets are in
// kernel_model.
#include <netdb.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "fuzz/world/kernel.h"
#include "support/wrapped_calls.h"

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names

namespace {

Kernel* Entered()
{
    return Kernel::Current();
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
