#pragma once

#include "arqlink/core/line.h"
#include "common/datagrams.h"

#include <vector>

namespace arqlink {

// Datagrams that have left their lines, collected so that many go out with one call.
class Outbox {
public:
    Outbox();
    // The next one to fill: pop a delivery into it, then Send it, or leave it.
    Delivery& Next() { return m_deliveries[m_nCount]; }
    // What Next gave goes out through this socket, at the latest with the next Flush. The number of datagrams that the
    // system has refused meanwhile.
    size_t Send(int fd, const common::Endpoint& to);
    size_t Flush();

private:
    int m_nFd = -1;
    size_t m_nCount = 0;
    std::vector<Delivery> m_deliveries;
    common::DatagramWriter m_writer;
};

} // namespace arqlink
