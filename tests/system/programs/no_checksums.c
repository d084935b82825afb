/* Preloaded: every UDP socket sends without checksums. The kernel takes no trains from such a socket (EINVAL); each
 * datagram by itself it does. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/socket.h>

int socket(int domain, int type, int protocol)
{
    const int fd = ((int (*)(int, int, int))dlsym(RTLD_NEXT, "socket"))(domain, type, protocol);
    const int on = 1;
    if (fd >= 0 && domain == AF_INET && (type & 0xf) == SOCK_DGRAM
        && setsockopt(fd, SOL_SOCKET, SO_NO_CHECK, &on, sizeof(on)) != 0)
        abort(); /* no test is to go on without its fault */
    return fd;
}
