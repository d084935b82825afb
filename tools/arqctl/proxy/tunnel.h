#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "arqctl/core/ssh_texts.h"
#include "arqctl/proxy/ask.h"
#include "arqctl/proxy/target.h"

namespace arqctl {

class HostTunnel;

// The ways to control sockets of other machines: one `ssh -N -L` for each host, shared by all targets on it, with its
// sockets in a folder of its own that only this user may enter. It ends with this object and with this process, even a
// killed one. Targets of this machine are taken too and are left as they are.
//
// A loop that asks several proxies names them all with PathOf, calls Proceed about once a second, asks at the paths, and
// gives every answer to Judge. A command uses Open, asks, and then Diagnose.
//
// Times are microseconds of the monotonic clock. Threads: one thread's own, and that lives as long as this object.
class Tunnels {
public:
    Tunnels();
    ~Tunnels();
    Tunnels(const Tunnels&) = delete;
    Tunnels& operator=(const Tunnels&) = delete;

    // Where the target's control socket is to be found on this machine. Waits for nothing; behind a tunnel there may be no
    // file yet. One that is new on a host whose ssh runs already makes that start again.
    std::string PathOf(const Target& target);

    // Starts what does not run, and looks at what ended: tried again after RETRY_AFTER_US.
    void Proceed(int64_t nowUs);
    static constexpr int64_t RETRY_AFTER_US = 3'000'000;

    // Waits until the way to the target stands, at most until ssh's own time-outs and `patienceUs` are over.
    Failure Open(const Target& target, int64_t patienceUs);

    // Corrects an answer that was got at PathOf: a tunnel whose other end found no socket takes the connection and closes
    // it, which looks like an empty or a broken reply. Waits for nothing.
    void Judge(const Target& target, Answer& answer);
    // The same, and finds out over there why: waits for another ssh.
    void Diagnose(const Target& target, Answer& answer, int64_t patienceUs);

    // A failure's sentences, for targets of this machine too.
    Trouble Explain(const Target& target, Failure failure) const;

private:
    HostTunnel* Find(const Target& target) const; // null for this machine's

    std::vector<std::unique_ptr<HostTunnel>> m_hosts;
};

} // namespace arqctl
