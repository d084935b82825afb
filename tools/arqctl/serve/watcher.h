#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "arqctl/core/meter.h"
#include "arqctl/proxy/poller.h"
#include "arqctl/proxy/process.h"
#include "arqctl/proxy/target.h"
#include "arqctl/proxy/tunnel.h"
#include "base/mutex.h"

namespace arqctl {

// What is known of one proxy at one time.
struct WatchedChannel {
    Target target;
    std::string id; // Target::Name()
    std::string socketPath; // where it is asked, on this machine
    Reading reading;
    std::string problem; // of the last question: "" when it was answered
    uint64_t failures = 0; // questions without an answer
    double answerSeconds = 0; // how long the last answer took
    int pid = 0; // of the proxy where it runs here
    std::optional<ProcessFacts> facts; // where it may be looked at
};

using WatchedChannels = std::vector<WatchedChannel>;

// Asks every proxy once a second, whoever looks or not, on a thread of its own. A proxy that does not answer holds nobody
// up. Threads: the methods belong to the owner's thread; whole snapshots are handed over under a mutex.
class Watcher {
public:
    // No targets: whatever is found on this machine, looked for every 10 s.
    Watcher(std::vector<Target> targets, int64_t patienceUs);
    ~Watcher();
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    // The newest; never null, empty before the first look.
    std::shared_ptr<const WatchedChannels> Latest() EXCLUDES(m_mutex);

private:
    struct Watched;
    void Run();
    void LookForTargets(int64_t nowUs);
    void Watch(const Target& target);
    void WaitForNews();
    void ProceedAll(int64_t nowUs);
    void LookAtProcess(Watched& watched, int64_t nowUs);
    void Publish() EXCLUDES(m_mutex);

    const bool m_bFindsTargets;
    const int64_t m_patienceUs;
    std::unique_ptr<Tunnels> m_tunnels; // these three are the thread's own
    std::vector<std::unique_ptr<Watched>> m_watched;
    int64_t m_nextLookUs = 0;
    UniqueFd m_end; // readable when the thread is to end

    Mutex m_mutex;
    std::shared_ptr<const WatchedChannels> m_latest GUARDED_BY(m_mutex);
    std::thread m_thread;
};

} // namespace arqctl
