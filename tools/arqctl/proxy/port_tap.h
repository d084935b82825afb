#pragma once

#include <cstdint>
#include <vector>

#include "base/unique_fd.h"

namespace arqctl {

// Copies of the IPv4 UDP datagrams that reach this thread's network for one port, made before a firewall or the source filter
// may drop them. It takes CAP_NET_RAW; without it the tap is closed, and nothing is seen.
class PortTap {
public:
    PortTap() = default;
    // `address`: of which destination, machine's byte order; 0: any. Of each datagram `headBytes` are kept.
    PortTap(uint16_t port, uint32_t address, uint32_t headBytes);

    bool IsOpen() const { return m_socket.IsValid(); }
    // How many came since the last call.
    uint64_t TakeCount();
    // The heads of those that were kept: as many as the kernel has room for.
    std::vector<std::vector<uint8_t>> TakeHeads();

private:
    UniqueFd m_socket;
    uint32_t m_nHeadBytes = 0;
};

} // namespace arqctl
