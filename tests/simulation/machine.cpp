#include "simulation/machine.h"

#include <algorithm>

#include "simulation/failure.h"
#include "support/wrapped_calls.h"

namespace simulation {

namespace {

constexpr int64_t STALL_US = 20000;

} // namespace

Machine* Machine::s_current = nullptr;

Machine::Machine(uint64_t seed, int64_t steadyStartUs, int64_t wallStartUs, const Faults& faults)
    : clock(steadyStartUs, wallStartUs),
      fibers(queue, clock),
      m_sleepRandom(seed, Purpose::Sleep),
      m_faults(faults)
{
    s_current = this;
    SetCurrent(this);
}

Machine::~Machine()
{
    s_current = nullptr;
    SetCurrent(nullptr);
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

bool Machine::Deliver(uint16_t port, const kernel_model::ReceivedDatagram& datagram)
{
    if (!Put(port, datagram))
        return false;
    if (m_nWaitingFiber != Fibers::NONE)
        fibers.Wake(m_nWaitingFiber);
    return true;
}

void Machine::WaitForDatagrams(int64_t ms)
{
    m_pOutside->OnWaiting();
    m_nWaitingFiber = fibers.Current();
    (void)fibers.Wait(ms < 0 ? -1 : ms * 1000);
    m_nWaitingFiber = Fibers::NONE;
}

void Machine::OnTaken(const kernel_model::Socket& socket, const kernel_model::ReceivedDatagram& datagram,
    uint8_t* /*buffer*/, size_t /*count*/, size_t /*room*/)
{
    m_pOutside->OnRead(socket.port, datagram);
}

void Machine::OnDescriptor(kernel_model::Descriptor change, int fd, int other)
{
    using kernel_model::Descriptor;
    const auto number = static_cast<uint64_t>(fd);
    switch (change) {
    case Descriptor::Made:
        Note(Happened::SocketMade, number, static_cast<uint64_t>(fibers.Current()));
        m_pOutside->OnSocketMade();
        break;
    case Descriptor::Duplicated:
        Note(Happened::SocketDuplicated, number, static_cast<uint64_t>(other));
        break;
    case Descriptor::Closed:
        Note(Happened::SocketClosed, number);
        break;
    case Descriptor::Shut:
        Note(Happened::SocketShut, number);
        break;
    }
}

void Machine::OnMisuse(const char* promise)
{
    Fail(Outcome::BrokenInvariant, "broken promise: %s", promise);
}

} // namespace simulation
