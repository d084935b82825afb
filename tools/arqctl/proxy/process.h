#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "arqctl/core/kernel_text.h"
#include "arqctl/core/proxy_options.h"

namespace arqctl {

// A running proxy as this machine shows it.
struct ProcessFacts {
    int pid = 0;
    ProxyOptions options;
    double startTime = 0; // Unix time in seconds; the same at each look, good to a second
    double processorSeconds = 0; // user and system
    uint64_t residentBytes = 0;
    uint32_t user = 0; // as which it runs
    // Its UDP sockets. Where its descriptors may not be looked at (another user's), those of that user in its network that
    // are bound to one of its ports, as long as there is no second one of the same address.
    std::vector<UdpSocketFacts> sockets;

    // The socket that the input arrives at; null when there is none.
    const UdpSocketFacts* Input() const;
};

// Reads /proc/PID. Empty when there is no such process, it is no tx_proxy, or it may not be looked at. It may end at any
// moment meanwhile. What it is goes by the program's file, whatever it was told its name is; where that may not be seen,
// by the name the kernel keeps.
std::optional<ProcessFacts> FactsOf(int pid);

// Processes that are proxies, the lowest number first; those of other networks and containers too.
std::vector<int> ProxyProcesses();

// The whole text of a file of /proc or /sys, as far as it can be read; empty without.
std::optional<std::string> ReadText(const std::string& path);

} // namespace arqctl
