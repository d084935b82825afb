#include "replicator/log_timestamp.h"

#include <ctime>

void LogTimestamp(FILE* stream)
{
    constexpr int WEEKDAY_CHARS = 4; // "Sat "
    const time_t now = time(nullptr);
    char text[32] = ""; // ctime_r writes 26 characters at most
    if (ctime_r(&now, text) == nullptr)
        return;
    (void)fprintf(stream, "%.15s: ", text + WEEKDAY_CHARS);
}
