#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace arqctl {

// A proxy's command line as the proxy itself understands it: defaults, 16-bit ports, rounded ring.
struct ProxyOptions {
    int instance = 1; // -I
    uint16_t listenPort = 0;
    std::string group; // ListenMulticastAddr, "" without
    std::vector<std::string> destinations; // -a
    uint16_t mediaPort = 10000; // -p
    uint16_t unicastPort = 0; // -b, 0: off
    uint16_t requestPort = 7020; // -r
    uint32_t ringPackets = 4096; // -q
    int64_t grossBitRate = 50'000'000; // -G, bit/s
    int64_t pacingBitRate = 0; // -X, bit/s, 0: off
    int interfaces = 0; // -n
    bool isRawInput = false; // -u
    bool isEncrypting = false; // -z or -Z

    bool operator==(const ProxyOptions&) const = default;
};

// Reads argv (the program's name first). False when the proxy itself would refuse it.
bool ReadProxyOptions(const std::vector<std::string>& arguments, ProxyOptions& options);

} // namespace arqctl
