#include "control/wait_readable.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "pacing/ms_clock.h"

bool WaitReadable(int fd, uint32_t timeoutMs)
{
    pollfd wanted { fd, POLLIN, 0 };
    const int count = poll(&wanted, 1, static_cast<int>(std::min<uint32_t>(timeoutMs, INT_MAX)));
    if (count >= 0 && (wanted.revents & POLLNVAL) == 0)
        return count > 0;
    if (count < 0 && errno == EINTR)
        return false; // a signal ends the wait early, which is not an error
    (void)SleepMs(timeoutMs); // whoever loops around this wait must not spin
    return false;
}
