#pragma once

#include <pthread.h>

#include <atomic>

// Threads that are never joined but must be gone before what they use is destroyed.
//
// Threads: Start and WaitUntilGone are called by the owner; a thread of the crew leaves by returning from
// its entry function.
class ThreadCrew {
public:
    using Entry = void (*)(void* argument);

    // Starts a detached thread that runs entry(argument). Returns false, with errno set, when it could not be
    // made.
    bool Start(Entry entry, void* argument);

    // Blocks until every thread started here has returned from its entry function. Whoever calls it has
    // told them to end before.
    void WaitUntilGone() const;
    bool IsGone() const { return m_nRunning.load() == 0; }

private:
    static void* Run(void* start);

    std::atomic<int> m_nRunning { 0 };
};
