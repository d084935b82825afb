#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "simulation/event_queue.h"
#include "simulation/fibers.h"
#include "simulation/random.h"
#include "simulation/trace.h"
#include "simulation/virtual_clock.h"
#include "simulation/virtual_sockets.h"

namespace simulation {

// What the proxy does to the world outside, as seen by whoever checks it. Called on the proxy's threads, in the
// middle of what they do.
class Outside {
public:
    Outside() = default;
    Outside(const Outside&) = delete;
    Outside& operator=(const Outside&) = delete;
    virtual ~Outside() = default;

    // One datagram. Returns 0, or the error number with which the call is to fail.
    virtual int OnSend(int fd, const sockaddr_in& destination, const uint8_t* bytes, size_t length) = 0;
    // A descriptor of a socket of its own was made.
    virtual void OnSocketMade(int fd) = 0;
    // The listen thread has taken a datagram from a port (host order) and serves it until it asks for more.
    virtual void OnServe(uint16_t port, const ReceivedDatagram& datagram) = 0;
    virtual void OnServed() = 0;
    // The time of day, or the steady clock, was read by the thread that runs.
    virtual void OnTimeOfDay() = 0;
    virtual void OnSteadyTime() = 0;
};

// The machine on which the proxy runs: its clocks, threads, mutexes and sockets. The wrapped calls find it
// through Current.
class Machine {
public:
    struct Faults {
        int64_t oversleepUs = 0; // a sleep may take up to so much longer
        int64_t stallPermille = 0; // sleeps that take 20 ms longer
    };

    Machine(uint64_t seed, int64_t steadyStartUs, int64_t wallStartUs, const Faults& faults);
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;
    ~Machine();

    // The one that runs; null between two.
    static Machine* Current() { return s_current; }

    void SetOutside(Outside* outside) { m_pOutside = outside; }
    Outside* World() const { return m_pOutside; }
    void EndFaults() { m_faults = {}; }

    // Takes the next event and carries it out; false when there is none left.
    bool Step();

    void Note(Happened what, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0)
    {
        trace.Note(clock.NowUs(), what, a, b, c);
    }

    void Sleep(int64_t forUs); // as nanosleep, with what a loaded machine adds
    void LockMutex(pthread_mutex_t* mutex);
    void UnlockMutex(pthread_mutex_t* mutex);

    // A datagram arrives for a port of the proxy (host order). False when no socket is bound to it.
    bool Deliver(uint16_t port, const ReceivedDatagram& datagram);
    // Waits until one of the descriptors is readable; the number of those that are.
    int Poll(pollfd* wanted, size_t count, int timeoutMs);
    // Takes a datagram; -1 when there is none.
    ssize_t Receive(int fd, void* buffer, size_t room, sockaddr_in* source);
    ssize_t Send(int fd, const sockaddr_in& destination, const uint8_t* bytes, size_t length);

    VirtualClock clock;
    EventQueue queue;
    Trace trace;
    Fibers fibers;
    VirtualSockets sockets;

private:
    struct MutexWaiter {
        pthread_mutex_t* mutex;
        int fiber;
    };

    static Machine* s_current;

    Random m_sleepRandom;
    Faults m_faults;
    Outside* m_pOutside = nullptr;
    std::vector<MutexWaiter> m_mutexWaiters; // in the order in which they came
    int m_nPollingFiber = Fibers::NONE;
};

} // namespace simulation
