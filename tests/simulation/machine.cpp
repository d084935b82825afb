#include "simulation/machine.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/wrapped_calls.h"

namespace simulation {

namespace {

constexpr int64_t STALL_US = 20000;

int CountReadable(const VirtualSockets& sockets, pollfd* wanted, size_t count)
{
    return MarkReadable(
        wanted, count, [&](int fd) { return sockets.Find(fd) != nullptr; },
        [&](int fd) { return !sockets.Find(fd)->received.empty(); });
}

} // namespace

Machine* Machine::s_current = nullptr;

Machine::Machine(uint64_t seed, int64_t steadyStartUs, int64_t wallStartUs, const Faults& faults)
    : clock(steadyStartUs, wallStartUs),
      fibers(queue, clock),
      m_sleepRandom(seed, Purpose::Sleep),
      m_faults(faults)
{
    s_current = this;
}

Machine::~Machine()
{
    s_current = nullptr;
}

bool Machine::Step()
{
    if (queue.IsEmpty())
        return false;
    const EventQueue::Event event = queue.Take();
    clock.AdvanceTo(event.atUs);
    event.action->OnEvent(event.argument);
    return true;
}

void Machine::Sleep(int64_t forUs)
{
    int64_t longerUs = m_faults.oversleepUs > 0 ? m_sleepRandom.Between(0, m_faults.oversleepUs) : 0;
    if (m_sleepRandom.Chance(m_faults.stallPermille))
        longerUs += STALL_US;
    (void)fibers.Wait(forUs + longerUs);
}

// Only one fiber runs at a time, so a real mutex that is taken already is another fiber's.
void Machine::LockMutex(pthread_mutex_t* mutex)
{
    while (pthread_mutex_trylock(mutex) != 0) {
        m_mutexWaiters.push_back({ mutex, fibers.Current() });
        (void)fibers.Wait(-1);
    }
}

void Machine::UnlockMutex(pthread_mutex_t* mutex)
{
    (void)__real_pthread_mutex_unlock(mutex);
    const auto first = std::find_if(m_mutexWaiters.begin(), m_mutexWaiters.end(),
        [mutex](const MutexWaiter& waiter) { return waiter.mutex == mutex; });
    if (first == m_mutexWaiters.end())
        return;
    const int fiber = first->fiber;
    m_mutexWaiters.erase(first);
    fibers.Wake(fiber);
}

bool Machine::Deliver(uint16_t port, const ReceivedDatagram& datagram)
{
    VirtualSockets::Socket* socket = sockets.FindBound(port);
    if (socket == nullptr)
        return false;
    socket->received.push_back(datagram);
    if (m_nPollingFiber != Fibers::NONE)
        fibers.Wake(m_nPollingFiber);
    return true;
}

int Machine::Poll(pollfd* wanted, size_t count, int timeoutMs)
{
    m_pOutside->OnServed();
    int ready = CountReadable(sockets, wanted, count);
    if (ready != 0 || timeoutMs == 0)
        return ready;
    m_nPollingFiber = fibers.Current();
    (void)fibers.Wait(static_cast<int64_t>(timeoutMs) * 1000);
    m_nPollingFiber = Fibers::NONE;
    return CountReadable(sockets, wanted, count);
}

ssize_t Machine::Receive(int fd, void* buffer, size_t room, sockaddr_in* source)
{
    m_pOutside->OnServed();
    VirtualSockets::Socket* socket = sockets.Find(fd);
    if (socket == nullptr || socket->received.empty()) {
        errno = socket == nullptr ? EBADF : EAGAIN;
        return -1;
    }
    const ReceivedDatagram datagram = std::move(socket->received.front());
    socket->received.pop_front();
    const size_t length = std::min(room, datagram.bytes.size());
    if (length != 0)
        std::memcpy(buffer, datagram.bytes.data(), length);
    *source = {};
    source->sin_family = AF_INET;
    source->sin_addr.s_addr = datagram.addressNet;
    source->sin_port = datagram.portNet;
    m_pOutside->OnServe(socket->port, datagram);
    return static_cast<ssize_t>(length);
}

ssize_t Machine::Send(int fd, const sockaddr_in& destination, const uint8_t* bytes, size_t length)
{
    errno = sockets.Find(fd) == nullptr ? EBADF : m_pOutside->OnSend(fd, destination, bytes, length);
    return errno == 0 ? static_cast<ssize_t>(length) : -1;
}

} // namespace simulation
