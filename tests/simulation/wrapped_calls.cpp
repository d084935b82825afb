// The calls of the code under test that reach the clock or the thread library; those that have to do with sockets are
// in kernel_model. The linker sends them here; while a machine of ours runs they are its, otherwise the C library's
// or the sanitizer's.
#include <pthread.h>
#include <sys/time.h>

#include <ctime>

#include "input/packet_buffer.h"
#include "replicator/arq_send_replicator.h"
#include "simulation/machine.h"
#include "simulation/stream_book.h"
#include "support/wrapped_calls.h"

using simulation::Machine;

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

// Two calls of the code under test itself: the listen thread begins and ends with a datagram, of several that it has
// read in one go. Named as the linker names them (CMakeLists.txt).
// NOLINTBEGIN(bugprone-reserved-identifier)
int RealProcessPing(ArqSendReplicator* self, PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet,
    uint32_t streamId) asm("__real__ZN17ArqSendReplicator11ProcessPingEP12PacketBufferjtj");
int WrapProcessPing(ArqSendReplicator* self, PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet,
    uint32_t streamId) asm("__wrap__ZN17ArqSendReplicator11ProcessPingEP12PacketBufferjtj");
int RealProcessRequest(ArqSendReplicator* self, PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet,
    uint32_t streamId,
    const RequestTime&
        time) asm("__real__ZN17ArqSendReplicator14ProcessRequestEP12PacketBufferjtjRK11RequestTime");
int WrapProcessRequest(ArqSendReplicator* self, PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet,
    uint32_t streamId,
    const RequestTime&
        time) asm("__wrap__ZN17ArqSendReplicator14ProcessRequestEP12PacketBufferjtjRK11RequestTime");
// NOLINTEND(bugprone-reserved-identifier)

namespace {

template <typename Serve>
int Served(uint16_t port, const PacketBuffer& packet, in_addr_t addressNet, uint16_t portNet, Serve serve)
{
    const uint8_t* bytes = packet.Data();
    Machine& machine = *Machine::Current();
    machine.World()->OnServe(port, { addressNet, portNet, { bytes, bytes + packet.Length() } });
    const int result = serve();
    machine.World()->OnServed();
    return result;
}

} // namespace

int WrapProcessPing(
    ArqSendReplicator* self, PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet, uint32_t streamId)
{
    return Served(simulation::DEST_PORT, *packet, addressNet, portNet,
        [&] { return RealProcessPing(self, packet, addressNet, portNet, streamId); });
}

int WrapProcessRequest(ArqSendReplicator* self, PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet,
    uint32_t streamId, const RequestTime& time)
{
    return Served(simulation::REQUEST_PORT, *packet, addressNet, portNet,
        [&] { return RealProcessRequest(self, packet, addressNet, portNet, streamId, time); });
}
