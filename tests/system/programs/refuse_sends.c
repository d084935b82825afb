/* Preloaded: while the file named by REFUSED_SENDS exists and holds "ADDRESS ERRNO", sends to that IPv4 address fail
 * with that error number. The file is looked at before each send, so that a test can begin and end it. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

typedef ssize_t SendTo(int, const void*, size_t, int, const struct sockaddr*, socklen_t);
typedef ssize_t SendMsg(int, const struct msghdr*, int);

/* The error number for this destination, 0 for none. */
static int refusal(const struct sockaddr* to)
{
    char text[64] = "", host[32];
    int error = 0;
    struct in_addr address;
    const char* path = getenv("REFUSED_SENDS");
    if (path == NULL || to == NULL || to->sa_family != AF_INET)
        return 0;
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return 0;
    const ssize_t size = read(file, text, sizeof(text) - 1);
    close(file);
    if (size <= 0 || sscanf(text, "%31s %d", host, &error) != 2 || inet_pton(AF_INET, host, &address) != 1)
        return 0;
    return ((const struct sockaddr_in*)to)->sin_addr.s_addr == address.s_addr ? error : 0;
}

ssize_t sendto(int fd, const void* data, size_t size, int flags, const struct sockaddr* to, socklen_t bytes)
{
    const int error = refusal(to);
    if (error != 0) {
        errno = error;
        return -1;
    }
    return ((SendTo*)dlsym(RTLD_NEXT, "sendto"))(fd, data, size, flags, to, bytes);
}

ssize_t sendmsg(int fd, const struct msghdr* message, int flags)
{
    const int error = refusal(message->msg_name);
    if (error != 0) {
        errno = error;
        return -1;
    }
    return ((SendMsg*)dlsym(RTLD_NEXT, "sendmsg"))(fd, message, flags);
}
