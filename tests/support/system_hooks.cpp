#include "support/system_hooks.h"

#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <mutex>
#include <thread>
#include <utility>

#include "support/wrapped_calls.h"

namespace {

using test_support::SystemCall;

struct Failing {
    int error = 0;
    int first = 0;
    int last = 0; // 0: none is to fail
    int calls = 0;
    int failures = 0;
    std::function<void()> onFailure {};
};

thread_local Failing failing[static_cast<size_t>(SystemCall::ReceiveTogether) + 1]; // the last kind

Failing& Of(SystemCall call)
{
    return failing[static_cast<int>(call)];
}

// Counts a call; the error number with which it must fail, or 0.
int CountAndFail(SystemCall call)
{
    Failing& plan = Of(call);
    ++plan.calls;
    if (plan.calls < plan.first || plan.calls > plan.last)
        return 0;
    ++plan.failures;
    if (plan.onFailure)
        plan.onFailure();
    return plan.error;
}

// -1 with errno set when this call must fail.
int FailWithErrno(SystemCall call)
{
    const int error = CountAndFail(call);
    if (error == 0)
        return 0;
    errno = error;
    return -1;
}

struct Sleep {
    std::thread::id thread;
    uint32_t ms;
};

std::atomic<int> cutters { 0 }; // how many ShortWaits there are
// Notes go into memory that was set aside before: allocations are counted, too, in the threads under test.
constexpr size_t MOST_NOTES = 100000;
std::mutex notesMutex; // guards the next three
std::thread::id exempt; // whose polls are not cut
std::vector<Sleep> sleeps;
std::vector<int> polls;

void NoteSleep(uint32_t ms)
{
    const std::lock_guard<std::mutex> lock(notesMutex);
    if (sleeps.size() < MOST_NOTES)
        sleeps.push_back({ std::this_thread::get_id(), ms });
}

// True when the poll is to be cut.
bool NotePoll(int timeoutMs)
{
    const std::lock_guard<std::mutex> lock(notesMutex);
    if (exempt == std::this_thread::get_id())
        return false;
    if (polls.size() < MOST_NOTES)
        polls.push_back(timeoutMs);
    return true;
}

} // namespace

int __wrap_pthread_create(
    pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument)
{
    const int error = CountAndFail(SystemCall::CreateThread);
    return error != 0 ? error : __real_pthread_create(thread, attributes, entry, argument);
}

int __wrap_socket(int domain, int type, int protocol)
{
    return FailWithErrno(SystemCall::OpenSocket) != 0 ? -1 : __real_socket(domain, type, protocol);
}

int __wrap_dup(int fd)
{
    return FailWithErrno(SystemCall::Duplicate) != 0 ? -1 : __real_dup(fd);
}

int __wrap_connect(int fd, const sockaddr* address, socklen_t addressBytes)
{
    return FailWithErrno(SystemCall::Connect) != 0 ? -1 : __real_connect(fd, address, addressBytes);
}

int __wrap_gethostbyname_r(
    const char* name, hostent* host, char* buffer, size_t size, hostent** result, int* error)
{
    const int status = CountAndFail(SystemCall::LookUpHost);
    return status != 0 ? status : __real_gethostbyname_r(name, host, buffer, size, result, error);
}

int __wrap_nanosleep(const timespec* time, timespec* left)
{
    if (cutters == 0)
        return __real_nanosleep(time, left);
    NoteSleep(static_cast<uint32_t>(time->tv_sec * 1000 + time->tv_nsec / 1000000));
    const timespec cut { 0, time->tv_sec > 0 ? 1000000 : std::min(time->tv_nsec, 1000000L) };
    return __real_nanosleep(&cut, left);
}

int __wrap_poll(pollfd* wanted, nfds_t count, int timeoutMs)
{
    if (count != 0 && FailWithErrno(SystemCall::Poll) != 0)
        return -1;
    if (cutters == 0 || count == 0)
        return __real_poll(wanted, count, timeoutMs);
    return __real_poll(wanted, count, NotePoll(timeoutMs) ? std::min(timeoutMs, 1) : timeoutMs);
}

int __wrap_recvmmsg(int fd, mmsghdr* messages, unsigned count, int flags, timespec* timeout)
{
    return FailWithErrno(SystemCall::ReceiveTogether) != 0
        ? -1
        : __real_recvmmsg(fd, messages, count, flags, timeout);
}

namespace test_support {

FailCalls::FailCalls(SystemCall call, int error, int first, int last) : m_call(call)
{
    Of(call) = { .error = error, .first = first, .last = last };
}

FailCalls::~FailCalls()
{
    Of(m_call) = {};
}

void FailCalls::OnFailure(std::function<void()> action)
{
    Of(m_call).onFailure = std::move(action);
}

int FailCalls::Count() const
{
    return Of(m_call).failures;
}

int FailCalls::Calls() const
{
    return Of(m_call).calls;
}

ShortWaits::ShortWaits(OwnPolls ownPolls)
{
    const std::lock_guard<std::mutex> lock(notesMutex);
    if (cutters++ != 0)
        return;
    exempt = ownPolls == OwnPolls::Whole ? std::this_thread::get_id() : std::thread::id();
    sleeps.clear();
    sleeps.reserve(MOST_NOTES);
    polls.clear();
    polls.reserve(MOST_NOTES);
}

ShortWaits::~ShortWaits()
{
    --cutters;
}

std::vector<uint32_t> ShortWaits::SleepsMs(uint32_t shortestMs) const
{
    const std::lock_guard<std::mutex> lock(notesMutex);
    std::vector<uint32_t> own;
    for (const Sleep& sleep : sleeps) {
        if (sleep.thread == std::this_thread::get_id() && sleep.ms >= shortestMs)
            own.push_back(sleep.ms);
    }
    return own;
}

std::vector<uint32_t> ShortWaits::OthersSleepsMs() const
{
    const std::lock_guard<std::mutex> lock(notesMutex);
    std::vector<uint32_t> others;
    for (const Sleep& sleep : sleeps) {
        if (sleep.thread != std::this_thread::get_id())
            others.push_back(sleep.ms);
    }
    return others;
}

std::set<uint32_t> ShortWaits::AnySleepsMs(uint32_t shortestMs) const
{
    const std::lock_guard<std::mutex> lock(notesMutex);
    std::set<uint32_t> all;
    for (const Sleep& sleep : sleeps) {
        if (sleep.ms >= shortestMs)
            all.insert(sleep.ms);
    }
    return all;
}

std::set<int> ShortWaits::PollsMs() const
{
    const std::lock_guard<std::mutex> lock(notesMutex);
    return { polls.begin(), polls.end() };
}

} // namespace test_support
