#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <vector>

#include "base/unique_fd.h"
#include "outlet.h"

// Sends requests in the name of an outlet's destinations, from their addresses, which need not be this machine's own.
class Asker {
public:
    // Of destinations 0 to `count` - 1; the requests go to `requestPort`. Gives up where it may not do that.
    Asker(const Outlet& outlet, int32_t count, uint16_t requestPort);

    // One request of destination `index` for `count` numbers from `first` on.
    void Ask(int32_t index, uint16_t first, uint16_t count);

private:
    sockaddr_in m_requests;
    std::vector<UniqueFd> m_sockets; // one a destination
};
