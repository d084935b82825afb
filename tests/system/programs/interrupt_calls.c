/* Preloaded: every INTERRUPT_EVERY-th call of each function below fails with EINTR, as if a signal had come before
 * anything was done. How often that has happened stands in the file INTERRUPT_COUNTS, one 64-bit word each, in the
 * order of `calls`. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "shared_words.h"

enum calls { RECVFROM, RECVMMSG, SENDTO, SENDMSG, SENDMMSG, SEND, POLL, ACCEPT, READ, WRITE, NANOSLEEP, CALLS };

static int64_t* interrupted; /* shared with the test */
static unsigned long every;

__attribute__((constructor)) static void prepare(void)
{
    interrupted = shared_words("INTERRUPT_COUNTS", CALLS);
    every = strtoul(getenv("INTERRUPT_EVERY"), NULL, 10);
}

static int is_interrupted(enum calls call)
{
    static unsigned long made[CALLS];
    if (every == 0 || __atomic_add_fetch(&made[call], 1, __ATOMIC_RELAXED) % every != 0)
        return 0;
    __atomic_add_fetch(&interrupted[call], 1, __ATOMIC_RELAXED);
    errno = EINTR;
    return 1;
}

#define WRAP(call, type, name, parameters, arguments)                                                                  \
    type name parameters                                                                                               \
    {                                                                                                                  \
        static type(*next) parameters;                                                                                 \
        if (is_interrupted(call))                                                                                      \
            return -1;                                                                                                 \
        if (next == NULL)                                                                                              \
            next = (type(*) parameters)dlsym(RTLD_NEXT, #name);                                                        \
        return next arguments;                                                                                         \
    }

WRAP(RECVFROM, ssize_t, recvfrom, (int s, void* b, size_t n, int f, struct sockaddr* a, socklen_t* l),
    (s, b, n, f, a, l))
WRAP(RECVMMSG, int, recvmmsg, (int s, struct mmsghdr* m, unsigned n, int f, struct timespec* t), (s, m, n, f, t))
WRAP(SENDTO, ssize_t, sendto, (int s, const void* b, size_t n, int f, const struct sockaddr* a, socklen_t l),
    (s, b, n, f, a, l))
WRAP(SENDMSG, ssize_t, sendmsg, (int s, const struct msghdr* m, int f), (s, m, f))
WRAP(SENDMMSG, int, sendmmsg, (int s, struct mmsghdr* m, unsigned n, int f), (s, m, n, f))
WRAP(SEND, ssize_t, send, (int s, const void* b, size_t n, int f), (s, b, n, f))
WRAP(POLL, int, poll, (struct pollfd * p, nfds_t n, int t), (p, n, t))
WRAP(ACCEPT, int, accept, (int s, struct sockaddr* a, socklen_t* l), (s, a, l))
WRAP(READ, ssize_t, read, (int f, void* b, size_t n), (f, b, n))
WRAP(WRITE, ssize_t, write, (int f, const void* b, size_t n), (f, b, n))

/* Says how much of the sleep is left: all of it. */
int nanosleep(const struct timespec* wanted, struct timespec* left)
{
    static int (*next)(const struct timespec*, struct timespec*);
    if (is_interrupted(NANOSLEEP)) {
        if (left != NULL)
            *left = *wanted;
        return -1;
    }
    if (next == NULL)
        next = (int (*)(const struct timespec*, struct timespec*))dlsym(RTLD_NEXT, "nanosleep");
    return next(wanted, left);
}
