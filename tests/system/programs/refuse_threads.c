/* Preloaded: the calls of pthread_create whose numbers stand in REFUSED_THREADS, separated by commas, fail for
 * want of resources. Number 0 is the log thread, which every run starts first. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>

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

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument)
{
    static long calls;
    if (is_refused(__atomic_fetch_add(&calls, 1, __ATOMIC_SEQ_CST)))
        return EAGAIN;
    Create* next = (Create*)dlsym(RTLD_NEXT, "pthread_create");
    return next(thread, attributes, entry, argument);
}
