/* For the preloaded libraries: 64-bit words of the machine's own order in a file, which the test sees as they change
 * and may write. */
#ifndef SHARED_WORDS_H
#define SHARED_WORDS_H

#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

/* The first `count` words of the file that the variable of the environment names; NULL without the variable. A file
 * that cannot be used ends the program: no test is to go on without its fault. No library's open is called, since
 * one of them may want its words. */
static inline int64_t* shared_words(const char* variable, size_t count)
{
    const char* name = getenv(variable);
    if (name == NULL)
        return NULL;
    const int file = (int)syscall(SYS_openat, AT_FDCWD, name, O_RDWR | O_CLOEXEC);
    void* page = mmap(NULL, count * sizeof(int64_t), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (page == MAP_FAILED)
        abort();
    (void)syscall(SYS_close, file);
    return (int64_t*)page;
}

#endif
