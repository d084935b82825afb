#pragma once

#include "base/unique_fd.h"

namespace arqctl {

// While it lives, this thread is in the network of a process: sockets, interfaces and /proc/sys/net are that network's.
// Entering another one takes CAP_SYS_ADMIN.
class OtherNetwork {
public:
    // 0: stays where it is.
    explicit OtherNetwork(int pid);
    ~OtherNetwork();
    OtherNetwork(const OtherNetwork&) = delete;
    OtherNetwork& operator=(const OtherNetwork&) = delete;

    // False where it is another one and could not be entered, or the process is gone.
    bool IsThere() const { return m_isThere; }

private:
    UniqueFd m_own; // valid only when there is a way back to go
    bool m_isThere = true;
};

// Whether a process has this program's network, and its /dev. False where that is not to be seen.
bool SharesNetwork(int pid);
bool SharesDevices(int pid);

} // namespace arqctl
