#include "replicator/thread_crew.h"

#include <cerrno>
#include <memory>
#include <new>

#include "pacing/ms_clock.h"

namespace {

struct CrewStart {
    ThreadCrew::Entry entry;
    void* argument;
    std::atomic<int>* running;
};

} // namespace

bool ThreadCrew::Start(Entry entry, void* argument)
{
    std::unique_ptr<CrewStart> start(new (std::nothrow) CrewStart { entry, argument, &m_nRunning });
    if (!start) {
        errno = ENOMEM;
        return false;
    }
    m_nRunning.fetch_add(1);
    pthread_t thread {};
    const int error = pthread_create(&thread, nullptr, Run, start.get());
    if (error != 0) {
        m_nRunning.fetch_sub(1);
        errno = error; // for the caller's message
        return false;
    }
    (void)start.release(); // Run owns it now
    (void)pthread_detach(thread);
    return true;
}

// The count is the last thing a thread touches here.
void* ThreadCrew::Run(void* start)
{
    std::atomic<int>* running = nullptr;
    {
        const std::unique_ptr<CrewStart> owned(static_cast<CrewStart*>(start));
        running = owned->running;
        owned->entry(owned->argument);
    }
    running->fetch_sub(1);
    return nullptr;
}

void ThreadCrew::WaitUntilGone() const
{
    while (!IsGone())
        (void)SleepMs(1);
}
