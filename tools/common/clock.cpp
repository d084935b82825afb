#include "common/clock.h"

#include <ctime>

namespace common {

int64_t NowUs()
{
    timespec now {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // fails only for a clock that does not exist
    return static_cast<int64_t>(now.tv_sec) * US_PER_SECOND + now.tv_nsec / 1000;
}

} // namespace common
