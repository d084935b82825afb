#include "arqrx/program/sample_board.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <utility>

namespace arqrx {

SampleBoard::SampleBoard() : m_wake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

bool SampleBoard::IsWanted()
{
    if (!m_bWanted.load(std::memory_order_relaxed))
        return false;
    uint64_t ignored = 0;
    (void)!read(m_wake.Get(), &ignored, sizeof(ignored));
    return m_bWanted.exchange(false);
}

void SampleBoard::Publish(Sample sample)
{
    const std::lock_guard lock(m_mutex);
    m_sample = std::move(sample);
    ++m_nPublished;
    m_published.notify_all();
}

void SampleBoard::Close()
{
    const std::lock_guard lock(m_mutex);
    m_bClosed = true;
    m_published.notify_all();
}

Sample SampleBoard::Fresh(int64_t patienceUs)
{
    std::unique_lock lock(m_mutex);
    const uint64_t before = m_nPublished;
    if (!m_bClosed) {
        m_bWanted.store(true);
        const uint64_t one = 1;
        (void)!write(m_wake.Get(), &one, sizeof(one));
    }
    (void)m_published.wait_for(
        lock, std::chrono::microseconds(patienceUs), [&] { return m_bClosed || m_nPublished != before; });
    return m_sample;
}

} // namespace arqrx
