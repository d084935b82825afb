#include "control/wait_readable.h"

#include <sys/select.h>

#include "pacing/ms_clock.h"

bool WaitReadable(int fd, uint32_t timeoutMs)
{
    if (fd < 0 || fd >= FD_SETSIZE) {
        (void)SleepMs(timeoutMs); // whoever loops around this wait must not spin
        return false;
    }
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    timeval timeout { static_cast<time_t>(timeoutMs / 1000),
        static_cast<suseconds_t>(timeoutMs % 1000) * 1000 };
    return select(fd + 1, &readable, nullptr, nullptr, &timeout) > 0 && FD_ISSET(fd, &readable);
}
