#include "input/packet_queue.h"

#include <algorithm>

PacketQueue::PacketQueue(bool& okFlag, int32_t capacity, Callback onFull, Callback onEmpty)
    : m_ring(okFlag, capacity),
      m_pOnFull(onFull),
      m_pOnEmpty(onEmpty)
{
}

int32_t PacketQueue::pushBatch(PacketBuffer* const* buffers, int32_t count, uint32_t timeoutMs)
{
    int32_t accepted = 0;
    {
        const MutexLock lock(m_outerMutex);
        accepted = RingPut(buffers, count);
        for (int32_t done = accepted; done < count;) {
            m_notEmpty.Signal(); // a consumer that sleeps knows of none of these yet, and is to make the room
            accepted += PutWhenThereIsRoom(buffers[done], timeoutMs);
            ++done;
            const int32_t put = RingPut(buffers + done, count - done);
            done += put;
            accepted += put;
        }
    }
    if (accepted > 0)
        m_notEmpty.Signal();
    return accepted;
}

// For a full ring. 0 when the wait timed out.
int32_t PacketQueue::PutWhenThereIsRoom(PacketBuffer* buffer, uint32_t timeoutMs)
{
    if (m_pOnFull)
        m_pOnFull(this);
    if (!WaitOnce(m_notFull, timeoutMs))
        return 0;
    (void)RingPut(&buffer, 1); // dropped when the ring is still full
    return 1;
}

PacketBuffer* PacketQueue::pop(int* okOut, uint32_t timeoutMs)
{
    PacketBuffer* buffer = nullptr;
    const int32_t taken = Take(&buffer, 1, timeoutMs);
    if (okOut)
        *okOut = taken == TIMED_OUT ? 0 : 1;
    return buffer;
}

int32_t PacketQueue::popBatch(PacketBuffer** out, int32_t most)
{
    const int32_t taken = Take(out, most, NO_LIMIT);
    return static_cast<int32_t>(std::remove(out, out + taken, nullptr) - out);
}

int32_t PacketQueue::Count()
{
    const MutexLock lock(m_innerMutex);
    return m_ring.Count();
}

// How many were taken: 0 only after a spurious wake-up.
int32_t PacketQueue::Take(PacketBuffer** out, int32_t most, uint32_t timeoutMs)
{
    const MutexLock lock(m_outerMutex);
    int32_t taken = RingGet(out, most);
    if (taken == 0) {
        if (m_pOnEmpty)
            m_pOnEmpty(this);
        if (!WaitOnce(m_notEmpty, timeoutMs))
            return TIMED_OUT;
        taken = RingGet(out, most);
    }
    // Still under the lock: a producer that waits for this place then finds it free. Signalled later, it
    // might have filled the place already, wait for another one, and lose its packet to the wake-up.
    m_notFull.Signal();
    return taken;
}

// False when the deadline passed first.
bool PacketQueue::WaitOnce(Condition& condition, uint32_t timeoutMs)
{
    if (timeoutMs == NO_LIMIT) {
        condition.Wait(m_outerMutex);
        return true;
    }
    timeval now {};
    (void)gettimeofday(&now, nullptr);
    return condition.WaitUntil(m_outerMutex, QueueDeadline(now, timeoutMs)) == 0;
}

// Puts what there is room for; how many those are.
int32_t PacketQueue::RingPut(PacketBuffer* const* buffers, int32_t count)
{
    const MutexLock lock(m_innerMutex);
    int32_t put = 0;
    while (put < count && m_ring.Put(buffers[put]))
        ++put;
    return put;
}

int32_t PacketQueue::RingGet(PacketBuffer** out, int32_t most)
{
    const MutexLock lock(m_innerMutex);
    int32_t taken = 0;
    while (taken < most && !m_ring.IsEmpty())
        out[taken++] = m_ring.Get();
    return taken;
}

timespec QueueDeadline(const timeval& now, uint32_t timeoutMs)
{
    timespec deadline {};
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(timeoutMs / 1000);
    long microseconds = now.tv_usec + static_cast<long>(timeoutMs % 1000) * 1000;
    if (microseconds > 999999) {
        microseconds -= 1000000;
        ++deadline.tv_sec;
    }
    deadline.tv_nsec = microseconds * 1000;
    return deadline;
}
