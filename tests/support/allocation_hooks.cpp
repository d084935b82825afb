#include "support/allocation_hooks.h"

#include <cstdlib>
#include <new>

// The linker sends malloc, calloc and realloc of every object linked into the test program to __wrap_*, and
// __real_* to the C library or to the sanitizer. The operators all end in the same three functions, so that
// memory from any form of new may go back through any form of delete.
extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* memory, size_t size);
void* __wrap_malloc(size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_realloc(void* memory, size_t size);
}

namespace {

thread_local uint64_t allocationCount = 0;
thread_local int allocationsUntilFailure = 0; // 0: none is to fail

// Counts an allocation; true if it is the one that must fail.
bool CountAndFail()
{
    ++allocationCount;
    return allocationsUntilFailure > 0 && --allocationsUntilFailure == 0;
}

void* Allocate(size_t size)
{
    return CountAndFail() ? nullptr : __real_malloc(size > 0 ? size : 1);
}

void* AllocateAligned(size_t size, std::align_val_t alignment)
{
    void* memory = nullptr;
    if (CountAndFail() || posix_memalign(&memory, static_cast<size_t>(alignment), size > 0 ? size : 1) != 0)
        return nullptr;
    return memory;
}

void* OrThrow(void* memory)
{
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

} // namespace

void* __wrap_malloc(size_t size)
{
    return CountAndFail() ? nullptr : __real_malloc(size);
}

void* __wrap_calloc(size_t count, size_t size)
{
    return CountAndFail() ? nullptr : __real_calloc(count, size);
}

void* __wrap_realloc(void* memory, size_t size)
{
    return CountAndFail() ? nullptr : __real_realloc(memory, size);
}

void* operator new(size_t size)
{
    return OrThrow(Allocate(size));
}
void* operator new[](size_t size)
{
    return OrThrow(Allocate(size));
}
void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return Allocate(size);
}
void* operator new[](size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return Allocate(size);
}
void* operator new(size_t size, std::align_val_t alignment)
{
    return OrThrow(AllocateAligned(size, alignment));
}
void* operator new[](size_t size, std::align_val_t alignment)
{
    return OrThrow(AllocateAligned(size, alignment));
}
void* operator new(size_t size, std::align_val_t alignment, const std::nothrow_t& /*tag*/) noexcept
{
    return AllocateAligned(size, alignment);
}
void* operator new[](size_t size, std::align_val_t alignment, const std::nothrow_t& /*tag*/) noexcept
{
    return AllocateAligned(size, alignment);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, size_t /*size*/) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, size_t /*size*/) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t /*alignment*/) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t /*alignment*/) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, size_t /*size*/, std::align_val_t /*alignment*/) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, size_t /*size*/, std::align_val_t /*alignment*/) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t /*alignment*/, const std::nothrow_t& /*tag*/) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t /*alignment*/, const std::nothrow_t& /*tag*/) noexcept
{
    std::free(memory);
}

namespace test_support {

AllocationCount::AllocationCount() : m_nStart(allocationCount) {}

uint64_t AllocationCount::Count() const
{
    return allocationCount - m_nStart;
}

FailNthAllocation::FailNthAllocation(int n)
{
    allocationsUntilFailure = n;
}

FailNthAllocation::~FailNthAllocation()
{
    allocationsUntilFailure = 0;
}

bool FailNthAllocation::Fired() const
{
    return allocationsUntilFailure == 0;
}

} // namespace test_support
