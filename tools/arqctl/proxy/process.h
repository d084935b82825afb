#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "arqctl/core/proxy_options.h"

namespace arqctl {

// A UDP socket as the kernel lists it in the process's own network.
struct UdpSocketFacts {
    uint32_t address = 0; // local, machine's byte order
    uint16_t port = 0;
    uint64_t receiveQueueBytes = 0;
    uint64_t drops = 0; // datagrams that found no room, since the socket was made
    uint64_t inode = 0;
};

// A running proxy as this machine shows it.
struct ProcessFacts {
    int pid = 0;
    ProxyOptions options;
    double startTime = 0; // Unix time in seconds
    double processorSeconds = 0; // user and system
    uint64_t residentBytes = 0;
    std::vector<UdpSocketFacts> sockets;

    // The socket that the input arrives at; null when there is none.
    const UdpSocketFacts* Input() const;
};

// Reads /proc/PID. Empty when there is no such process, it is no tx_proxy, or it may not be looked at.
std::optional<ProcessFacts> FactsOf(int pid);

} // namespace arqctl
