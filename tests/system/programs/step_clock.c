/* Preloaded: the wall clock of this process, moved by what stands in the file that STEPPED_CLOCK names: the step
 * in microseconds, how fast it drifts in parts per million, and the steady time in microseconds since which it
 * does; three 64-bit words of the machine's own order. The steady clock and the machine's clock stay as they are. */
#define _GNU_SOURCE
#include <stddef.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "shared_words.h"

enum { STEP, DRIFT_PPM, DRIFT_SINCE, WORDS };

static const int64_t* shift_words(void)
{
    static const int64_t* words;
    const int64_t* known = __atomic_load_n(&words, __ATOMIC_ACQUIRE);
    if (known == NULL) {
        known = shared_words("STEPPED_CLOCK", WORDS);
        __atomic_store_n(&words, known, __ATOMIC_RELEASE);
    }
    return known;
}

__attribute__((constructor)) static void find_words(void)
{
    (void)shift_words();
}

/* Past every wrapper, ours and a sanitizer's. */
static int64_t real_us(clockid_t id)
{
    struct timespec now;
    (void)syscall(SYS_clock_gettime, id, &now);
    return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

static int64_t wall_us(void)
{
    const int64_t* words = shift_words();
    int64_t now = real_us(CLOCK_REALTIME);
    if (words == NULL)
        return now;
    now += __atomic_load_n(&words[STEP], __ATOMIC_RELAXED);
    int64_t ppm = __atomic_load_n(&words[DRIFT_PPM], __ATOMIC_RELAXED);
    if (ppm != 0)
        now += (real_us(CLOCK_MONOTONIC) - __atomic_load_n(&words[DRIFT_SINCE], __ATOMIC_RELAXED)) * ppm / 1000000;
    return now;
}

int gettimeofday(struct timeval* restrict now, void* restrict zone)
{
    (void)zone;
    int64_t us = wall_us();
    now->tv_sec = us / 1000000;
    now->tv_usec = us % 1000000;
    return 0;
}

time_t time(time_t* out)
{
    time_t now = wall_us() / 1000000;
    if (out != NULL)
        *out = now;
    return now;
}

int clock_gettime(clockid_t id, struct timespec* now)
{
    if (id != CLOCK_REALTIME)
        return (int)syscall(SYS_clock_gettime, id, now);
    int64_t us = wall_us();
    now->tv_sec = us / 1000000;
    now->tv_nsec = us % 1000000 * 1000;
    return 0;
}
