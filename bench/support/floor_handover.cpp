#include "floor_handover.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

FloorHandover::FloorHandover(bool wakeByCondition) : m_slots(SLOTS), m_bWakeByCondition(wakeByCondition) {}

uint32_t FloorHandover::FreeSlots(uint32_t wanted)
{
    for (;;) {
        const uint32_t free = SLOTS - (m_nPut.load(std::memory_order_relaxed) - m_nTaken.load());
        if (free != 0)
            return std::min(free, wanted);
        std::this_thread::yield();
    }
}

void FloorHandover::Put(uint32_t count)
{
    if (m_bWakeByCondition) {
        {
            const std::lock_guard lock(m_mutex);
            m_nPut.fetch_add(count);
        }
        m_condition.notify_one();
        return;
    }
    m_nPut.fetch_add(count);
    if (m_bSleeps.load())
        (void)Futex(FUTEX_WAKE_PRIVATE, 1);
}

uint32_t FloorHandover::Wait()
{
    const uint32_t taken = m_nTaken.load(std::memory_order_relaxed);
    if (m_bWakeByCondition) {
        std::unique_lock lock(m_mutex);
        m_condition.wait(lock, [&] { return m_nPut.load() != taken; });
    }
    while (m_nPut.load() == taken) {
        m_bSleeps.store(true);
        (void)Futex(FUTEX_WAIT_PRIVATE, taken);
        m_bSleeps.store(false);
    }
    return m_nPut.load() - taken;
}

long FloorHandover::Futex(int operation, uint32_t value)
{
    static_assert(sizeof(m_nPut) == sizeof(uint32_t) && std::atomic<uint32_t>::is_always_lock_free);
    return syscall(SYS_futex, reinterpret_cast<uint32_t*>(&m_nPut), operation, value, nullptr, nullptr, 0);
}
