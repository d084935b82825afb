#pragma once

#include <sys/time.h>

#include <cstdint>
#include <ctime>

#include "base/condition.h"
#include "base/mutex.h"
#include "input/packet_fifo.h"

struct PacketBuffer;

// Bounded blocking FIFO of packet buffers. It holds pointers only; the buffers belong to their pool.
//
// Threads: one producer calls push and pushBatch, one consumer pop, popWait and popBatch. Creation and
// destruction happen while neither runs.
class PacketQueue {
public:
    // Told about a full or an empty queue, with the outer mutex held: it must not call back into it.
    using Callback = void (*)(PacketQueue* queue);

    // Time-out, in milliseconds, that means "wait without limit".
    static constexpr uint32_t NO_LIMIT = 0xFFFFFFFF;

    // An empty queue of `capacity` places. Clears okFlag when memory is short; such a queue takes nothing
    // and gives nothing. Either callback may be null.
    PacketQueue(bool& okFlag, int32_t capacity, Callback onFull, Callback onEmpty);

    // Appends the buffer. When the queue is full, calls on-full and waits once for room, timeoutMs at
    // most. Returns 0 on time-out and 1 otherwise, even if a spurious wake-up found the queue still full
    // and the buffer was dropped.
    int push(PacketBuffer* buffer, uint32_t timeoutMs) EXCLUDES(m_outerMutex)
    {
        return pushBatch(&buffer, 1, timeoutMs);
    }

    // As many pushes, one after the other and each with its own wait, but the lock is taken and the consumer
    // woken once where there is room for all. Returns how many of them gave 1.
    int32_t pushBatch(PacketBuffer* const* buffers, int32_t count, uint32_t timeoutMs) EXCLUDES(m_outerMutex);

    // Takes the oldest buffer. When the queue is empty, calls on-empty and waits once, timeoutMs at most.
    // Returns null with *okOut = 0 on time-out; otherwise *okOut = 1, and the result is null only after a
    // spurious wake-up: callers skip that. okOut may be null.
    PacketBuffer* pop(int* okOut, uint32_t timeoutMs) EXCLUDES(m_outerMutex);

    // pop without a limit.
    PacketBuffer* popWait() { return pop(nullptr, NO_LIMIT); }

    // Waits as popWait does for the oldest buffer and takes with it what is there behind it, `most` at most,
    // without waiting for any of that. Returns how many buffers stand in `out`, in their order: nulls among
    // them are taken and left out, so that 0 means what popWait's null means.
    int32_t popBatch(PacketBuffer** out, int32_t most) EXCLUDES(m_outerMutex);

    // How many buffers are in it just now. For any thread.
    int32_t Count() EXCLUDES(m_innerMutex);

private:
    static constexpr int32_t TIMED_OUT = -1;

    int32_t Take(PacketBuffer** out, int32_t most, uint32_t timeoutMs) EXCLUDES(m_outerMutex);
    int32_t PutWhenThereIsRoom(PacketBuffer* buffer, uint32_t timeoutMs) REQUIRES(m_outerMutex);
    bool WaitOnce(Condition& condition, uint32_t timeoutMs) REQUIRES(m_outerMutex);
    int32_t RingPut(PacketBuffer* const* buffers, int32_t count) EXCLUDES(m_innerMutex);
    int32_t RingGet(PacketBuffer** out, int32_t most) EXCLUDES(m_innerMutex);

    Mutex m_innerMutex;
    PacketFifo m_ring GUARDED_BY(m_innerMutex);
    const Callback m_pOnFull;
    const Callback m_pOnEmpty;
    Mutex m_outerMutex ACQUIRED_BEFORE(m_innerMutex); // one call at a time
    Condition m_notFull;
    Condition m_notEmpty;
};

// The wall-clock deadline `timeoutMs` milliseconds after `now`.
timespec QueueDeadline(const timeval& now, uint32_t timeoutMs);
