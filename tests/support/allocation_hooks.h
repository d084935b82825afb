#pragma once

#include <cstdint>

namespace test_support {

// Counts the allocations (malloc, calloc, realloc and every form of new) of the calling thread since the
// object was made. Calls from inside shared libraries are not seen.
//
// Threads: one thread makes it and asks it.
struct AllocationCount {
    AllocationCount();
    uint64_t Count() const;

private:
    uint64_t m_nStart;
};

// Makes the n-th next allocation of the calling thread fail, from 1 on, and only that one: malloc,
// calloc, realloc and new (std::nothrow) return null, plain new throws std::bad_alloc. One at a time a
// thread.
//
// Threads: made, asked and destroyed by one thread; the allocations of others are left alone.
struct FailNthAllocation {
    explicit FailNthAllocation(int n);
    FailNthAllocation(const FailNthAllocation&) = delete;
    FailNthAllocation& operator=(const FailNthAllocation&) = delete;
    ~FailNthAllocation(); // whatever has not failed by now will not

    bool Fired() const;
};

} // namespace test_support
