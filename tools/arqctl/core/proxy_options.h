#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace arqctl {

// A proxy's command line as the proxy itself understands it: defaults, 16-bit ports, rounded ring.
struct ProxyOptions {
    int instance = 1; // -I
    uint16_t listenPort = 0;
    std::string group; // ListenMulticastAddr, "" without one that is a group: see idleAddress
    std::string idleAddress; // a second positional word that is no group, "" without: it has no effect
    std::vector<std::string> destinations; // -a, cut at the commas
    uint16_t mediaPort = 10000; // -p
    uint16_t unicastPort = 0; // -b, 0: off
    uint16_t requestPort = 7020; // -r
    uint32_t ringPackets = 4096; // -q
    int64_t grossBitRate = 50'000'000; // -G, bit/s, its low 32 bits
    int64_t pacingBitRate = 0; // -X, bit/s, 0: off
    int interfaces = 0; // -n, its low 16 bits; the proxy uses 4 at most
    bool isRawInput = false; // -u
    bool isEncrypting = false; // -z or -Z

    bool operator==(const ProxyOptions&) const = default;
};

// UDP port whose binding is the instance lock.
uint16_t LockPort(int instance);

// Where receivers ping: the port of -b beside a group, else that of the media. Names in -a are taken for no group.
uint16_t PingPort(const ProxyOptions& options);

// The first group among the destinations, which alone gets media with -b; "" without.
std::string OutputGroup(const ProxyOptions& options);

// Reads argv (the program's name first). False when the proxy itself would refuse it, or only print its help; then the
// options stay as they were.
bool ReadProxyOptions(const std::vector<std::string>& arguments, ProxyOptions& options);

} // namespace arqctl
