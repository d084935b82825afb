#include "world.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace {

constexpr uint64_t MOST_PRINTED = 20;

uint64_t g_faults;

} // namespace

void Fault(const char* format, ...)
{
    if (++g_faults > MOST_PRINTED)
        return;
    va_list arguments;
    va_start(arguments, format);
    const time_t now = time(nullptr);
    tm local {};
    char text[32] = "";
    (void)strftime(text, sizeof(text), "%T", localtime_r(&now, &local)); // as in the proxy's log
    printf("fault at %s: ", text);
    (void)vprintf(format, arguments);
    printf("\n");
    va_end(arguments);
}

uint64_t Faults()
{
    return g_faults;
}

void World::CheckStamp(uint64_t number, uint32_t timestamp)
{
    Stamp& stamp = m_stamps[number % STAMPS];
    if (stamp.number < number)
        stamp = { number, timestamp };
    else if (stamp.number == number && stamp.timestamp != timestamp)
        Fault("packet %lu has two timestamps", number);
}
