#include "replicator/log_timestamp.h"

#include <cstdarg>
#include <ctime>

void LogTimestamp(FILE* stream)
{
    constexpr int WEEKDAY_CHARS = 4; // "Sat "
    const time_t now = time(nullptr);
    char text[32] = ""; // ctime_r writes 26 characters at most
    if (ctime_r(&now, text) == nullptr)
        return;
    fprintf(stream, "%.15s: ", text + WEEKDAY_CHARS);
}

void LogStamped(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    flockfile(stderr); // standard error is unbuffered: each of the two writes goes out alone
    LogTimestamp(stderr);
    vfprintf(stderr, format, arguments);
    funlockfile(stderr);
    va_end(arguments);
}
