#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

namespace simulation {

// A datagram that has arrived at a socket of the proxy.
struct ReceivedDatagram {
    in_addr_t addressNet;
    uint16_t portNet;
    std::vector<uint8_t> bytes;
};

// The proxy's sockets as the kernel would keep them: descriptors, several of which may mean one socket. Numbers
// start high, so that they are never taken for real ones; the lowest free one is given out, as the kernel does.
class VirtualSockets {
public:
    static constexpr int FIRST = 1000;

    struct Socket {
        uint16_t port = 0; // bound to, host order; 0: none
        std::deque<ReceivedDatagram> received;
    };

    static bool IsOurs(int fd) { return fd >= FIRST; }

    int Make();
    // A descriptor of `fd`'s socket: the lowest free one, or `wanted`, whose own socket is given up. -1 when `fd`
    // means nothing.
    int Duplicate(int fd, int wanted = -1);
    bool Close(int fd);

    // Null when the descriptor is not open.
    Socket* Find(int fd) const;
    // The socket that is bound to the port; null when there is none.
    Socket* FindBound(uint16_t port) const;

    int Open() const; // open descriptors
    int Made() const { return m_nMade; } // descriptors ever given out

private:
    int Give(std::shared_ptr<Socket> socket);

    std::vector<std::shared_ptr<Socket>> m_descriptors;
    int m_nMade = 0;
};

} // namespace simulation
