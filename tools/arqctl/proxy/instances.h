#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "arqctl/core/statistics.h"
#include "arqctl/proxy/ask.h"
#include "arqctl/proxy/process.h"

namespace arqctl {

enum class InstanceState {
    Running, // answers
    Silent, // a proxy that does not answer in time
    NotAllowed, // no right to its socket
    Stale, // what a proxy that has ended left behind
    Foreign, // no socket, or another program's
    NoSocket // a proxy whose control socket is not there any more, or never was
};

// What was found at one control socket, or of one process.
struct Instance {
    std::optional<int> number; // of the file's name, or of the process's -I
    std::string socketPath; // as this program reaches it; empty where there is none
    InstanceState state = InstanceState::Foreign;
    Failure failure = Failure::None; // of the question
    Statistics statistics; // of one that is Running
    int pid = 0; // of who listens, 0 where that is not known
    std::optional<ProcessFacts> facts; // of a proxy that may be looked at
    std::string command; // its command line, without passwords
};

// All of this machine, in the order of their numbers: the files /dev/arq_tx_ctrl*, the sockets of units
// tx_proxy-private@, and those that other proxies of this network have in a /dev of their own, as far as that may be looked
// into; then proxies that have none. All are asked at the same time, and have `patienceUs` to answer.
std::vector<Instance> FindInstances(int64_t patienceUs);

// Numbers of the control sockets in /dev, and of units tx_proxy-private@, that somebody listens at. Asks nothing and takes
// no time: for programs that look again and again.
std::vector<int> ListeningInstances();

} // namespace arqctl
