#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace arqctl {

// The names under which this server may be asked. A page of somebody else whose name was made to point here (DNS
// rebinding) reaches the server with that page's name in `Host`, so whatever is not on this list is refused, reading too.
class HostList {
public:
    // `listenAddress` as it stands in a URL: "127.0.0.1", "[::1]". With it 127.0.0.1, localhost and [::1] are on the list,
    // all with `port`; without one only where that is what a browser leaves out (80).
    HostList(const std::string& listenAddress, uint16_t port);

    // False for what no browser sends as a Host: a whole address with "http://", blanks, nothing.
    static bool IsHost(std::string_view name);

    // "NAME" (with our port or, behind a server of another port, with none) or "NAME:PORT" (just so).
    void Allow(std::string_view name);

    // The value of a Host field, or what stands behind "http://" in an Origin. Letters of either case.
    bool Allows(std::string_view host) const;

    // The value of an Origin field: "http://HOST" or "https://HOST" of one that is allowed; "null" is none.
    bool AllowsOrigin(std::string_view origin) const;

private:
    std::vector<std::string> m_hosts; // small letters
    const uint16_t m_usPort;
};

} // namespace arqctl
