#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

namespace arqrx {

// Bytes between a thread that must not wait and one that may. A packet goes in whole or not at all.
// Threads: one calls Push, one calls Pop; any calls Close.
class ByteQueue {
public:
    explicit ByteQueue(size_t mostBytes) : m_nMostBytes(mostBytes) {}

    // The pieces one behind the other. False if they do not fit beside what waits and what was popped last.
    bool Push(std::span<const uint8_t> first, std::span<const uint8_t> second);
    // Hands what was pushed to the other side; to be called once behind several Push.
    void Ring();
    // Nothing will be pushed any more.
    void Close();
    // Replaces `bytes` by all that waits, waiting for it if there is nothing. False when closed and empty.
    bool Pop(std::vector<uint8_t>& bytes);

private:
    const size_t m_nMostBytes;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<uint8_t> m_waiting; // under the mutex, as the next two
    size_t m_nPopped = 0; // bytes that the last Pop took: they still take memory
    bool m_bClosed = false;
};

} // namespace arqrx
