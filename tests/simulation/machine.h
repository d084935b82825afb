#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kernel_model/socket_kernel.h"
#include "simulation/event_queue.h"
#include "simulation/fibers.h"
#include "simulation/random.h"
#include "simulation/trace.h"
#include "simulation/virtual_clock.h"

namespace simulation {

// What the proxy does to the world outside, as seen by whoever checks it. Called on the proxy's threads, in the
// middle of what they do.
class Outside {
public:
    Outside() = default;
    Outside(const Outside&) = delete;
    Outside& operator=(const Outside&) = delete;
    virtual ~Outside() = default;

    // A message is to leave: 0, or the error number with which the call is to fail.
    virtual int Refuse(const kernel_model::Attempt& attempt) = 0;
    // It has left or was refused.
    virtual void OnMessage(const kernel_model::Attempt& attempt, kernel_model::Fate fate) = 0;
    // A descriptor of a socket of its own was made.
    virtual void OnSocketMade() = 0;
    // The listen thread has read a datagram from a port (host order); later it serves it, and is done with it. It
    // waits for others only when it is done with all.
    virtual void OnRead(uint16_t port, const kernel_model::ReceivedDatagram& datagram) = 0;
    virtual void OnServe(uint16_t port, const kernel_model::ReceivedDatagram& datagram) = 0;
    virtual void OnServed() = 0;
    virtual void OnWaiting() = 0;
    // The time of day, or the steady clock, was read by the thread that runs.
    virtual void OnTimeOfDay() = 0;
    virtual void OnSteadyTime() = 0;
};

// The machine on which the proxy runs: its clocks, threads, mutexes and sockets. The wrapped calls find it
// through Current.
class Machine : public kernel_model::SocketKernel {
public:
    struct Faults {
        int64_t oversleepUs = 0; // a sleep may take up to so much longer
        int64_t stallPermille = 0; // sleeps that take 20 ms longer
    };

    Machine(uint64_t seed, int64_t steadyStartUs, int64_t wallStartUs, const Faults& faults);
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;
    ~Machine() override;

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
    bool Deliver(uint16_t port, const kernel_model::ReceivedDatagram& datagram);

    VirtualClock clock;
    EventQueue queue;
    Trace trace;
    Fibers fibers;

private:
    int Refuse(const kernel_model::Attempt& attempt) override { return m_pOutside->Refuse(attempt); }
    void OnMessage(const kernel_model::Attempt& attempt, kernel_model::Fate fate) override
    {
        m_pOutside->OnMessage(attempt, fate);
    }
    void OnTaken(const kernel_model::Socket& socket, const kernel_model::ReceivedDatagram& datagram,
        uint8_t* buffer, size_t count, size_t room) override;
    void WaitForDatagrams(int64_t ms) override;
    void OnDescriptor(kernel_model::Descriptor change, int fd, int other) override;
    void OnMisuse(const char* promise) override;

    struct MutexWaiter {
        pthread_mutex_t* mutex;
        int fiber;
    };

    static Machine* s_current;

    Random m_sleepRandom;
    Faults m_faults;
    Outside* m_pOutside = nullptr;
    std::vector<MutexWaiter> m_mutexWaiters; // in the order in which they came
    int m_nWaitingFiber = Fibers::NONE; // for datagrams
};

} // namespace simulation
