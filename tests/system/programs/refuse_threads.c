/* Preloaded: the calls of pthread_create whose numbers (from 1) stand in REFUSED_THREADS, separated by commas, fail
 * for want of resources. Every call adds a byte to the file that COUNTED_THREADS names. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

typedef int Create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

static int is_refused(long call)
{
    const char* text = getenv("REFUSED_THREADS");
    while (text != NULL && *text != '\0') {
        char* end;
        if (strtol(text, &end, 10) == call)
            return 1;
        text = *end == ',' ? end + 1 : NULL;
    }
    return 0;
}

static void count(void)
{
    const char* name = getenv("COUNTED_THREADS");
    int file = name != NULL ? open(name, O_WRONLY | O_APPEND | O_CLOEXEC) : -1;
    if (file < 0)
        return;
    if (write(file, "", 1) != 1)
        abort();
    (void)close(file);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument)
{
    static long calls;
    count();
    if (is_refused(__atomic_add_fetch(&calls, 1, __ATOMIC_SEQ_CST)))
        return EAGAIN;
    Create* next = (Create*)dlsym(RTLD_NEXT, "pthread_create");
    return next(thread, attributes, entry, argument);
}
