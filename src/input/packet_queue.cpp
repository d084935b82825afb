#include "input/packet_queue.h"

PacketQueue::PacketQueue(bool& okFlag, int32_t capacity, Callback onFull, Callback onEmpty)
    : m_ring(okFlag, capacity),
      m_pOnFull(onFull),
      m_pOnEmpty(onEmpty)
{
}

int PacketQueue::push(PacketBuffer* buffer, uint32_t timeoutMs)
{
    {
        const MutexLock lock(m_outerMutex);
        if (IsFull()) {
            if (m_pOnFull)
                m_pOnFull(this);
            if (!WaitOnce(m_notFull, timeoutMs))
                return 0;
        }
        RingPut(buffer);
    }
    m_notEmpty.Signal();
    return 1;
}

PacketBuffer* PacketQueue::pop(int* okOut, uint32_t timeoutMs)
{
    PacketBuffer* buffer = nullptr;
    {
        const MutexLock lock(m_outerMutex);
        if (IsEmpty()) {
            if (m_pOnEmpty)
                m_pOnEmpty(this);
            if (!WaitOnce(m_notEmpty, timeoutMs)) {
                if (okOut)
                    *okOut = 0;
                return nullptr;
            }
        }
        buffer = RingGet();
        // Still under the lock: a producer that waits for this place then finds it free. Signalled later, it
        // might have filled the place already, wait for another one, and lose its packet to the wake-up.
        m_notFull.Signal();
    }
    if (okOut)
        *okOut = 1;
    return buffer;
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

bool PacketQueue::IsFull()
{
    const MutexLock lock(m_innerMutex);
    return m_ring.IsFull();
}

bool PacketQueue::IsEmpty()
{
    const MutexLock lock(m_innerMutex);
    return m_ring.IsEmpty();
}

// Drops the buffer when the ring is still full.
void PacketQueue::RingPut(PacketBuffer* buffer)
{
    const MutexLock lock(m_innerMutex);
    (void)m_ring.Put(buffer);
}

PacketBuffer* PacketQueue::RingGet()
{
    const MutexLock lock(m_innerMutex);
    return m_ring.Get();
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
