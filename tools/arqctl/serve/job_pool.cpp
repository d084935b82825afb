#include "arqctl/serve/job_pool.h"

#include <sys/eventfd.h>

#include <exception>
#include <utility>

#include "arqctl/serve/worker_thread.h"

namespace arqctl {

JobPool::JobPool(event_base* base)
    : m_news(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_event(event_new(base, m_news.Get(), EV_READ | EV_PERSIST, Told, this))
{
    (void)event_add(m_event.get(), nullptr);
}

JobPool::~JobPool()
{
    m_bIsEnding = true;
    {
        const MutexLock lock(m_mutex);
        m_bEnds = true;
        m_waiting.clear();
    }
    for (size_t worker = 0; worker < m_workers.size(); worker++)
        m_wake.Signal();
    for (std::thread& worker : m_workers)
        worker.join();
}

void JobPool::Start(const std::string& channel, Work work, Done done)
{
    while (m_workers.size() < WORKERS)
        m_workers.push_back(StartWorker([this] { RunWorker(); }));
    m_channels.insert(channel);
    {
        const MutexLock lock(m_mutex);
        m_waiting.push_back({ channel, std::move(work), std::move(done), {} });
    }
    m_wake.Signal();
}

void JobPool::RunWorker()
{
    Job job;
    while (Next(job)) {
        try {
            job.reply = job.work();
        } catch (const std::exception& error) {
            job.reply = RefusalReply(
                { 500, std::string("the command could not be carried out: ") + error.what(), "try again" });
        }
        Finish(std::move(job));
    }
}

// Waits for one. False: the end.
bool JobPool::Next(Job& job)
{
    const MutexLock lock(m_mutex);
    while (m_waiting.empty() && !m_bEnds)
        m_wake.Wait(m_mutex);
    if (m_bEnds)
        return false;
    job = std::move(m_waiting.front());
    m_waiting.pop_front();
    return true;
}

void JobPool::Finish(Job job)
{
    {
        const MutexLock lock(m_mutex);
        m_finished.push_back(std::move(job));
    }
    (void)eventfd_write(m_news.Get(), 1);
}

void JobPool::Told(int /*fd*/, short /*what*/, void* self)
{
    static_cast<JobPool*>(self)->TakeResults();
}

void JobPool::TakeResults()
{
    eventfd_t count = 0;
    (void)eventfd_read(m_news.Get(), &count);
    std::vector<Job> finished;
    {
        const MutexLock lock(m_mutex);
        finished.swap(m_finished);
    }
    for (const Job& job : finished) {
        m_channels.erase(job.channel);
        job.done(job.reply);
    }
}

} // namespace arqctl
