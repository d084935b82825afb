#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <string_view>

namespace common {

// An IPv4 address with a UDP port, both in the machine's own byte order. Address 0 is "any", port 0 "none yet".
struct Endpoint {
    uint32_t address = 0;
    uint16_t port = 0;

    bool operator==(const Endpoint&) const = default;
    bool IsMulticast() const { return (address >> 28) == 0xE; } // 224.0.0.0 to 239.255.255.255
};

// A dotted quad of four fields, nothing around it. False leaves the address as it was.
bool ParseAddress(std::string_view text, uint32_t& address);

// A port from 0 to 65535, digits only.
bool ParsePort(std::string_view text, uint16_t& port);

// "ADDRESS:PORT" with a dotted quad; "*:PORT" and ":PORT" mean every address of this machine. No name is looked up.
bool ParseEndpoint(std::string_view text, Endpoint& endpoint);

// As ParseEndpoint, and the host may be a name; the look-up can take seconds. A failure is told in `problem`, as the
// end of a sentence: "'x' is not HOST:PORT".
bool LookUpEndpoint(std::string_view text, Endpoint& endpoint, std::string& problem);

std::string AddressText(uint32_t address);
std::string EndpointText(const Endpoint& endpoint);

sockaddr_in ToSockaddr(const Endpoint& endpoint);
Endpoint FromSockaddr(const sockaddr_in& address);

} // namespace common
