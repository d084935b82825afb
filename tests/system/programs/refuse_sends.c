/* Preloaded: while the file named by REFUSED_SENDS exists and holds "ADDRESS ERRNO [KIND [EVERY]]", sends to that IPv4
 * address fail with that error number, whether the address is named or the socket is connected to it. KIND is "all", as
 * without it, or "trains": only several datagrams in one message, as for a device that cannot take them apart. EVERY
 * refuses each so many-th of them only. Of several messages in one call those before the refused one go out, as the
 * kernel does it. The file is looked at before each send, so that a test can begin and end it.
 *
 * How many trains, how many other messages were refused and how many calls have taken only a part of their messages
 * stands in the file that REFUSED_SENDS_COUNTS names, a 64-bit word each, if there is that variable. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/udp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "shared_words.h"

#define NEXT(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

enum counts { TRAINS, OTHERS, PARTS, COUNTS };

struct rule {
    struct in_addr address;
    int error; /* 0: nothing is refused */
    int trains_only;
    unsigned long every;
};

static int64_t* counts; /* shared with the test */

__attribute__((constructor)) static void prepare(void)
{
    counts = shared_words("REFUSED_SENDS_COUNTS", COUNTS);
}

static void count(enum counts what)
{
    if (counts != NULL)
        __atomic_add_fetch(&counts[what], 1, __ATOMIC_RELAXED);
}

static struct rule present_rule(void)
{
    struct rule rule = { .every = 1 };
    char text[64] = "", host[32] = "", kind[16] = "all";
    const char* path = getenv("REFUSED_SENDS");
    const int file = path == NULL ? -1 : open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return rule;
    const ssize_t size = read(file, text, sizeof(text) - 1);
    close(file);
    if (size <= 0 || sscanf(text, "%31s %d %15s %lu", host, &rule.error, kind, &rule.every) < 2
        || inet_pton(AF_INET, host, &rule.address) != 1)
        rule.error = 0;
    rule.trains_only = strcmp(kind, "trains") == 0;
    return rule;
}

static int goes_there(int fd, const struct sockaddr_in* to, struct in_addr there)
{
    struct sockaddr_in peer;
    socklen_t bytes = sizeof(peer);
    if (to == NULL && getpeername(fd, (struct sockaddr*)&peer, &bytes) == 0)
        to = &peer;
    return to != NULL && to->sin_family == AF_INET && to->sin_addr.s_addr == there.s_addr;
}

static int is_train(const struct msghdr* message)
{
    for (struct cmsghdr* control = CMSG_FIRSTHDR(message); control != NULL;
         control = CMSG_NXTHDR((struct msghdr*)message, control)) {
        if (control->cmsg_level == SOL_UDP && control->cmsg_type == UDP_SEGMENT)
            return 1;
    }
    return 0;
}

/* Whether this message is refused; errno says why. */
static int is_refused(const struct rule* rule, int fd, const struct msghdr* message)
{
    static unsigned long made;
    if (rule->error == 0 || !goes_there(fd, message->msg_name, rule->address))
        return 0;
    const int train = is_train(message);
    if (rule->trains_only && !train)
        return 0;
    if (__atomic_add_fetch(&made, 1, __ATOMIC_RELAXED) % rule->every != 0)
        return 0;
    count(train ? TRAINS : OTHERS);
    errno = rule->error;
    return 1;
}

static int is_one_refused(int fd, const struct sockaddr* to)
{
    const struct rule rule = present_rule();
    const struct msghdr message = { .msg_name = (void*)to };
    return is_refused(&rule, fd, &message);
}

ssize_t send(int fd, const void* data, size_t size, int flags)
{
    return is_one_refused(fd, NULL) ? -1 : NEXT(send)(fd, data, size, flags);
}

ssize_t sendto(int fd, const void* data, size_t size, int flags, const struct sockaddr* to, socklen_t bytes)
{
    return is_one_refused(fd, to) ? -1 : NEXT(sendto)(fd, data, size, flags, to, bytes);
}

ssize_t sendmsg(int fd, const struct msghdr* message, int flags)
{
    const struct rule rule = present_rule();
    return is_refused(&rule, fd, message) ? -1 : NEXT(sendmsg)(fd, message, flags);
}

int sendmmsg(int fd, struct mmsghdr* messages, unsigned int length, int flags)
{
    const struct rule rule = present_rule();
    unsigned int taken = 0;
    while (taken < length && !is_refused(&rule, fd, &messages[taken].msg_hdr))
        ++taken;
    if (taken == 0 && length > 0)
        return -1;
    if (taken < length)
        count(PARTS);
    return NEXT(sendmmsg)(fd, messages, taken, flags);
}
