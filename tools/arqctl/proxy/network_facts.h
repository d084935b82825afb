#pragma once

#include "arqctl/core/doctor_facts.h"

namespace arqctl {

// Gathers what a proxy's network says: interfaces, routes, tables and limits of the kernel, who holds its ports. Entered
// while it looks, where that is allowed; else isNetworkSeen is false, and only what /proc shows of a process's network is
// there. `facts` has options and process already; `own` are the sockets known to be the proxy's.
void GatherNetwork(DoctorFacts& facts, const std::vector<UdpSocketFacts>& own);

// How often rp_filter has refused a datagram in the network of this process (0: this program's).
std::optional<uint64_t> SourceFilterDrops(int pid);

} // namespace arqctl
