#pragma once

#include <ucontext.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "simulation/event_queue.h"
#include "simulation/virtual_clock.h"

namespace simulation {

// The threads of the code under test, run by one thread one at a time: each goes on until it sleeps or waits.
// So their real loops run on virtual time, in an order that only the event queue decides.
class Fibers : public Action {
public:
    using Entry = void (*)(void* argument);
    static constexpr int NONE = -1; // outside every fiber

    Fibers(EventQueue& queue, VirtualClock& clock) : m_queue(queue), m_clock(clock) {}
    ~Fibers() override;

    // Makes a fiber that starts at this moment, behind what was put into the queue before. Returns its number.
    int Start(Entry entry, void* argument);

    int Current() const { return m_nCurrent; }
    bool IsDone(int fiber) const { return m_fibers[static_cast<size_t>(fiber)]->done; }
    int Count() const { return static_cast<int>(m_fibers.size()); } // the next one gets this number
    int Running() const; // fibers that have not ended

    // The following are called by a fiber, for itself.
    // Waits until Wake or until the time is over (below 0: only Wake). True when it was woken.
    bool Wait(int64_t forUs);
    void Join(int fiber);

    void Wake(int fiber);

    void OnEvent(uint64_t argument) override;

private:
    struct Fiber {
        ucontext_t context {};
        char* stack = nullptr;
        Entry entry = nullptr;
        void* argument = nullptr;
        uint32_t waits = 0; // a time-out of an earlier wait means nothing any more
        bool waiting = false;
        bool woken = false;
        bool done = false;
        int joiner = NONE;
        void* fakeStack = nullptr; // the address sanitizer's
    };

    static void Begin();
    void Resume(Fiber& fiber);
    void SwitchToScheduler(Fiber& fiber);
    Fiber& Of(int fiber) { return *m_fibers[static_cast<size_t>(fiber)]; }

    EventQueue& m_queue;
    VirtualClock& m_clock;
    std::vector<std::unique_ptr<Fiber>> m_fibers;
    int m_nCurrent = NONE;
    ucontext_t m_scheduler {};
};

} // namespace simulation
