#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "media.h"

// Address of receiver `index`: 127.0.0.2 and up, `port` in host order. On 127.0.0.1 a receiver would share
// the proxy's own ping port.
sockaddr_in ReceiverAddress(int32_t index, uint16_t port);
sockaddr_in LoopbackAddress(uint16_t port);

// The addresses of "ADDRESS,ADDRESS,...", dotted quads, with `port` in host order. Gives up on anything else.
std::vector<sockaddr_in> ReadAddresses(const std::string& list, uint16_t port);

// A UDP port that nobody is bound to, below the range from which the kernel gives ports by itself.
uint16_t FreePort();

// An instance number of the proxy whose lock nobody holds.
int FreeInstance();

// A socket bound to `address`, which others may share. Gives up when that fails.
UniqueFd BoundSocket(const sockaddr_in& address);

// What one receiver got, with the kernel's own arrival time: no reader needs to be awake for it.
struct Arrival {
    int32_t receiver;
    const MediaDatagram& datagram; // only the first bytes are there: header and sentNs
    int32_t length; // of the whole datagram
    int64_t arrivedNs; // wall clock
};

// The receivers' sockets, on one port of 127.0.0.2 and up.
class Receivers {
public:
    using Visitor = std::function<void(const Arrival&)>;

    Receivers(int32_t count, uint16_t port);

    // Takes everything that has arrived so far; returns how many datagrams that were.
    int32_t Drain(const Visitor& visit);

    // The same for one receiver.
    int32_t DrainOne(int32_t receiver, const Visitor& visit);

    int32_t Count() const { return static_cast<int32_t>(m_sockets.size()); }
    int Socket(int32_t receiver) const { return m_sockets[static_cast<size_t>(receiver)].Get(); }
    uint16_t Port() const { return m_usPort; }

private:
    std::vector<UniqueFd> m_sockets;
    uint16_t m_usPort;
};
