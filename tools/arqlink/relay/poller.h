#pragma once

#include "base/unique_fd.h"

#include <array>
#include <cstdint>
#include <string>
#include <sys/epoll.h>

namespace arqlink {

// Waits for descriptors and for a moment of the monotonic clock, to the microsecond.
// Threads: one object is one thread's own.
class Poller {
public:
    // False: `problem` says what the system refused.
    bool Open(std::string& problem);
    // The tag says which descriptor is ready. A descriptor that is closed is forgotten.
    bool Add(int fd, uint64_t tag);
    // Until one is ready or the moment has come, NEVER included: the number of the tags that Ready then has.
    int Wait(int64_t untilUs);
    uint64_t Ready(int index) const { return m_events[static_cast<size_t>(index)].data.u64; }

private:
    void SetAlarm(int64_t untilUs);

    UniqueFd m_epoll;
    UniqueFd m_timer;
    int64_t m_nAlarmUs = 0; // what the timer is set to; 0: to nothing
    std::array<epoll_event, 64> m_events {};
};

} // namespace arqlink
