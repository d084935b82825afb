/* Counts the blocks and bytes that the program under test holds, for whoever looks from outside. Preloaded, with
 * TX_PROXY_HEAP_METER naming a file whose first two 64-bit words are these: blocks, bytes.
 *
 * Threads: any. Every word is stepped atomically. */
#define _GNU_SOURCE
#include <errno.h>
#include <malloc.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>

#include "shared_words.h"

struct meter {
    _Atomic int64_t blocks;
    _Atomic int64_t bytes;
};

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* block, size_t size);
extern void* __libc_memalign(size_t alignment, size_t size);
extern void __libc_free(void* block);

static struct meter until_mapped;
static struct meter* meter = &until_mapped;

__attribute__((constructor)) static void map(void)
{
    struct meter* mapped = (struct meter*)shared_words("TX_PROXY_HEAP_METER", sizeof(*mapped) / sizeof(int64_t));
    if (mapped == NULL)
        return;
    mapped->blocks = until_mapped.blocks;
    mapped->bytes = until_mapped.bytes;
    meter = mapped;
}

static void* come(void* block)
{
    if (block != NULL) {
        ++meter->blocks;
        meter->bytes += (int64_t)malloc_usable_size(block);
    }
    return block;
}

static void go(void* block)
{
    if (block != NULL) {
        --meter->blocks;
        meter->bytes -= (int64_t)malloc_usable_size(block);
    }
}

void* malloc(size_t size)
{
    return come(__libc_malloc(size));
}

void* calloc(size_t count, size_t size)
{
    return come(__libc_calloc(count, size));
}

void* realloc(void* block, size_t size)
{
    const int64_t before = block != NULL ? (int64_t)malloc_usable_size(block) : 0;
    void* moved = __libc_realloc(block, size);
    if (moved != NULL) {
        meter->blocks += block == NULL;
        meter->bytes += (int64_t)malloc_usable_size(moved) - before;
    }
    return moved;
}

static void* come_aligned(size_t alignment, size_t size)
{
    return come(__libc_memalign(alignment, size));
}

void* memalign(size_t alignment, size_t size)
{
    return come_aligned(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    return come_aligned(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size)
{
    *block = come_aligned(alignment, size);
    return *block != NULL ? 0 : ENOMEM;
}

void free(void* block)
{
    go(block);
    __libc_free(block);
}
