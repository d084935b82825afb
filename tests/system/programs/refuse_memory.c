/* Preloaded: allocations fail as stands in the file that REFUSED_MEMORY names, four 64-bit words of the machine's
 * own order: how many allocations there have been (counted here), the number of the one that fails (0: none), and
 * from which size on all fail (0: none). */
#define _GNU_SOURCE
#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "shared_words.h"

enum { CALLS, REFUSED, LEAST_BYTES, WORDS };

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

static int64_t* words;

__attribute__((constructor)) static void find_words(void)
{
    words = shared_words("REFUSED_MEMORY", WORDS);
}

/* What comes before words are found belongs to the loader and is let through. */
static int is_refused(size_t size)
{
    if (words == NULL)
        return 0;
    int64_t call = __atomic_add_fetch(&words[CALLS], 1, __ATOMIC_SEQ_CST);
    int64_t least = __atomic_load_n(&words[LEAST_BYTES], __ATOMIC_SEQ_CST);
    if (call != __atomic_load_n(&words[REFUSED], __ATOMIC_SEQ_CST) && (least == 0 || (int64_t)size < least))
        return 0;
    errno = ENOMEM;
    return 1;
}

void* malloc(size_t size)
{
    return is_refused(size) ? NULL : __libc_malloc(size);
}

void* calloc(size_t count, size_t size)
{
    return is_refused(count * size) ? NULL : __libc_calloc(count, size);
}

void* realloc(void* block, size_t size)
{
    return is_refused(size) ? NULL : __libc_realloc(block, size);
}

void* memalign(size_t alignment, size_t size)
{
    return is_refused(size) ? NULL : __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    return memalign(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size)
{
    void* got = memalign(alignment, size);
    if (got == NULL)
        return ENOMEM;
    *block = got;
    return 0;
}
