#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "arqctl/serve/http_server.h"
#include "arqctl/serve/web_reply.h"
#include "base/condition.h"
#include "base/mutex.h"
#include "base/unique_fd.h"

namespace arqctl {

// Does what may wait, a command to a proxy, away from the event loop: never two for one channel, and a bounded number in
// all. Threads: the methods are the event loop's own, and so is `done`; the work runs on a thread of the pool.
class JobPool {
public:
    static constexpr size_t WORKERS = 4;
    static constexpr size_t MOST_JOBS = 16; // begun or waiting

    using Work = std::function<WebReply()>;
    using Done = std::function<void(const WebReply&)>;

    explicit JobPool(event_base* base);
    // Waits for the work that has begun; what it has done is told to nobody.
    ~JobPool();
    JobPool(const JobPool&) = delete;
    JobPool& operator=(const JobPool&) = delete;

    bool IsBusyWith(const std::string& channel) const { return m_channels.contains(channel); }
    bool IsFull() const { return m_channels.size() >= MOST_JOBS; }
    // For a channel that it is not busy with, and while it is not full.
    void Start(const std::string& channel, Work work, Done done);
    // Set when the pool ends: work that watches a proxy for long should look at it. Lives as long as the pool.
    const std::atomic<bool>& IsEnding() const { return m_bIsEnding; }

private:
    struct Job {
        std::string channel;
        Work work;
        Done done;
        WebReply reply;
    };
    static void Told(int fd, short what, void* self);
    void TakeResults();
    void RunWorker();
    bool Next(Job& job) EXCLUDES(m_mutex);
    void Finish(Job job) EXCLUDES(m_mutex);

    UniqueFd m_news; // an eventfd: results wait
    EventPtr<event> m_event;
    std::atomic<bool> m_bIsEnding { false };
    std::set<std::string> m_channels; // of all jobs; the event loop's own

    Mutex m_mutex;
    Condition m_wake;
    std::deque<Job> m_waiting GUARDED_BY(m_mutex);
    std::vector<Job> m_finished GUARDED_BY(m_mutex);
    bool m_bEnds GUARDED_BY(m_mutex) = false;
    std::vector<std::thread> m_workers; // made with the first job
};

} // namespace arqctl
