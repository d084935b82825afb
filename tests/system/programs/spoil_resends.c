/* Preloaded: changes one byte in the payload of every media packet that is sent again (payload type 122). Everything in
 * its header stays right. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <string.h>
#include <sys/socket.h>

#define NEXT(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

enum { PLACE = 100, LONGEST = 2048 };

static int is_resend(const unsigned char* bytes, size_t size)
{
    return size > PLACE && bytes[0] == 0x80 && (bytes[1] & 0x7F) == 122;
}

/* A copy of the datagram, spoiled, or null when it is to stay as it is. */
static const void* spoiled(const void* bytes, size_t size, unsigned char* copy)
{
    if (!is_resend(bytes, size) || size > LONGEST)
        return NULL;
    memcpy(copy, bytes, size);
    copy[PLACE] ^= 0x10;
    return copy;
}

ssize_t send(int fd, const void* bytes, size_t size, int flags)
{
    unsigned char copy[LONGEST];
    const void* changed = spoiled(bytes, size, copy);
    return NEXT(send)(fd, changed != NULL ? changed : bytes, size, flags);
}

ssize_t sendto(int fd, const void* bytes, size_t size, int flags, const struct sockaddr* address, socklen_t length)
{
    unsigned char copy[LONGEST];
    const void* changed = spoiled(bytes, size, copy);
    return NEXT(sendto)(fd, changed != NULL ? changed : bytes, size, flags, address, length);
}

ssize_t sendmsg(int fd, const struct msghdr* message, int flags)
{
    unsigned char copy[LONGEST];
    if (message->msg_iovlen != 1)
        return NEXT(sendmsg)(fd, message, flags);
    const void* changed = spoiled(message->msg_iov[0].iov_base, message->msg_iov[0].iov_len, copy);
    if (changed == NULL)
        return NEXT(sendmsg)(fd, message, flags);
    struct iovec piece = { copy, message->msg_iov[0].iov_len };
    struct msghdr other = *message;
    other.msg_iov = &piece;
    return NEXT(sendmsg)(fd, &other, flags);
}
