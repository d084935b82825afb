#pragma once

#include <poll.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "arqctl/core/meter.h"
#include "arqctl/proxy/poller.h"
#include "arqctl/proxy/target.h"
#include "arqctl/proxy/tunnel.h"
#include "arqctl/top/recent_history.h"
#include "arqctl/top/shown_proxy.h"

namespace arqctl::top {

// Asks the proxies once a second and keeps what they said. Without targets it watches what runs on this machine, looked for
// every 10 s; what was found stays when it ends, since that is what has to be seen.
//
// Times are microseconds of the monotonic clock. Threads: one thread's own.
class Watch {
public:
    Watch(const std::vector<Target>& targets, int64_t patienceUs);

    // Adds what to wait for, and returns when Proceed is to be called at the latest.
    int64_t Wait(std::vector<pollfd>& descriptors) const;
    // True when there is something new.
    bool Proceed(int64_t nowUs);

    std::vector<ShownProxy> Shown() const;
    // By ShownProxy::name; null when there is none.
    const Target* Find(const std::string& name) const;
    // Where its control socket is found on this machine.
    std::string PathOf(const Target& target);
    // Its instance number, of its command line where the target has none; 0 when not known.
    int InstanceOf(const std::string& name) const;

private:
    struct Watched {
        Target target;
        std::string path;
        Meter meter;
        std::unique_ptr<RecentHistory> history;
        Failure failure = Failure::None;
        std::string trouble;
        int pid = 0; // whose facts these are
        int fanOut = -1;
        int instance = 0;
        int mediaPort = 0;
        std::string facts;
    };

    void Add(const Target& target);
    bool LookForInstances(int64_t nowUs);
    void AskAll(); // at their paths
    void Take(Watched& watched, PolledAnswer& polled);
    void LookAgain(Watched& watched);
    void LookAtProcess(Watched& watched, int pid);

    const bool m_bFinds;
    Tunnels m_tunnels;
    std::vector<Watched> m_watched; // in the order of the poller's paths
    Poller m_poller;
    int64_t m_nextLookUs = 0; // for instances
    int64_t m_nextTunnelUs = 0;
};

} // namespace arqctl::top
