#pragma once

#include "arqctl/core/doctor_facts.h"

namespace arqctl {

// Gathers what a proxy's network says: interfaces, routes, tables and limits of the kernel, who holds its ports. Entered
// while it looks, where that is allowed; else isNetworkSeen is false, and only what /proc shows of a process's network is
// there. `facts` has options and process already; `own` are the sockets known to be the proxy's.
void GatherNetwork(DoctorFacts& facts, const std::vector<UdpSocketFacts>& own);

// Counts of the network of this process (0: this program's); see CountsLook.
struct NetworkCounts {
    std::optional<uint64_t> sourceFilterDrops;
    std::optional<uint64_t> closedPortDatagrams;
    std::optional<uint64_t> unreachableMessages;
};
NetworkCounts NetworkCountsOf(int pid);

} // namespace arqctl
