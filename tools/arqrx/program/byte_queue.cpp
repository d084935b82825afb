#include "arqrx/program/byte_queue.h"

namespace arqrx {

bool ByteQueue::Push(std::span<const uint8_t> first, std::span<const uint8_t> second)
{
    const std::lock_guard lock(m_mutex);
    if (m_waiting.size() + m_nPopped + first.size() + second.size() > m_nMostBytes)
        return false;
    m_waiting.insert(m_waiting.end(), first.begin(), first.end());
    m_waiting.insert(m_waiting.end(), second.begin(), second.end());
    return true;
}

void ByteQueue::Ring()
{
    m_changed.notify_one();
}

void ByteQueue::Close()
{
    const std::lock_guard lock(m_mutex);
    m_bClosed = true;
    m_changed.notify_one();
}

bool ByteQueue::Pop(std::vector<uint8_t>& bytes)
{
    std::unique_lock lock(m_mutex);
    m_nPopped = 0;
    m_changed.wait(lock, [&] { return m_bClosed || !m_waiting.empty(); });
    bytes.clear();
    bytes.swap(m_waiting);
    m_nPopped = bytes.size();
    return !bytes.empty();
}

} // namespace arqrx
