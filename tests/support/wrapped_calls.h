#pragma once

#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>

#include <ctime>

// Calls of the C library that the linker leads from the code under test to __wrap_NAME, which a test program has
// for those that it names to the linker; __real_NAME is the C library's or the sanitizer's.
#define WRAPPED_CALL(type, name, ...) \
    type __real_##name(__VA_ARGS__); \
    type __wrap_##name(__VA_ARGS__)

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {
WRAPPED_CALL(int, pthread_create, pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
WRAPPED_CALL(int, pthread_join, pthread_t, void**);
WRAPPED_CALL(int, pthread_detach, pthread_t);
WRAPPED_CALL(int, pthread_mutex_lock, pthread_mutex_t*);
WRAPPED_CALL(int, pthread_mutex_unlock, pthread_mutex_t*);
WRAPPED_CALL(int, nanosleep, const timespec*, timespec*);
WRAPPED_CALL(int, gettimeofday, timeval*, void*);
WRAPPED_CALL(int, clock_gettime, clockid_t, timespec*);
WRAPPED_CALL(time_t, time, time_t*);
WRAPPED_CALL(int, socket, int, int, int);
WRAPPED_CALL(int, close, int);
WRAPPED_CALL(int, dup, int);
WRAPPED_CALL(int, dup2, int, int);
WRAPPED_CALL(int, connect, int, const sockaddr*, socklen_t);
WRAPPED_CALL(int, bind, int, const sockaddr*, socklen_t);
WRAPPED_CALL(int, setsockopt, int, int, int, const void*, socklen_t);
WRAPPED_CALL(int, getsockopt, int, int, int, void*, socklen_t*);
WRAPPED_CALL(int, shutdown, int, int);
WRAPPED_CALL(int, poll, pollfd*, nfds_t, int);
WRAPPED_CALL(int, connect, int, const sockaddr*, socklen_t);
WRAPPED_CALL(int, getsockname, int, sockaddr*, socklen_t*);
WRAPPED_CALL(ssize_t, recvfrom, int, void*, size_t, int, sockaddr*, socklen_t*);
WRAPPED_CALL(ssize_t, sendto, int, const void*, size_t, int, const sockaddr*, socklen_t);
WRAPPED_CALL(ssize_t, send, int, const void*, size_t, int);
WRAPPED_CALL(int, recvmmsg, int, mmsghdr*, unsigned, int, timespec*);
WRAPPED_CALL(ssize_t, send, int, const void*, size_t, int);
WRAPPED_CALL(ssize_t, sendmsg, int, const msghdr*, int);
WRAPPED_CALL(int, sendmmsg, int, mmsghdr*, unsigned, int);
WRAPPED_CALL(int, gethostbyname_r, const char*, hostent*, char*, size_t, hostent**, int*);
WRAPPED_CALL(int, access, const char*, int);
WRAPPED_CALL(int, unlink, const char*);
WRAPPED_CALL(int, stat, const char*, struct stat*);
WRAPPED_CALL(int, open, const char*, int, ...);
}
// NOLINTEND(bugprone-reserved-identifier)
