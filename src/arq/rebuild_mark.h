#pragma once

#include <atomic>
#include <cstdint>

// Tells a reader that takes no lock whether what it copied was rebuilt meanwhile: a count that is even while
// the record stands still and odd while it is rebuilt. It comes round after 2^31 rebuilds of one record.
//
// Threads: a sending thread calls Begin, rebuilds and calls End; the listen thread calls Read, copies and
// asks IsStill. Two sending threads meet at one record only when one of them falls a whole ring behind: what
// is copied at that moment may be a mixture, but the count is even again when both have ended. The words
// between are relaxed atomics, so that a copy may be a mixture, never undefined. Why no mixture passes:
//   - Who reads an even count (acquire) sees the whole rebuild that End (release) closed, or newer words.
//   - Begin and IsStill change the count in one step each, so one of them is first. When it is Begin, IsStill
//     finds another count. When it is IsStill, Begin (acquire) takes up what IsStill (release) put back: all
//     that was copied had been read before the rebuild wrote its first word.
// A plain store in Begin would lose the second: the rebuild's words could be seen before the odd count.
class RebuildMark {
public:
    void Begin() noexcept { (void)m_count.fetch_or(1, std::memory_order_acquire); }
    void End() noexcept
    {
        m_count.store((m_count.load(std::memory_order_relaxed) | 1) + 1, std::memory_order_release);
    }

    uint32_t Read() const noexcept { return m_count.load(std::memory_order_acquire); }

    // Whether nothing was rebuilt since `count` was read, nor at that moment.
    bool IsStill(uint32_t count) noexcept
    {
        return count % 2 == 0 && m_count.compare_exchange_strong(count, count, std::memory_order_release);
    }

private:
    std::atomic<uint32_t> m_count { 0 };
    static_assert(std::atomic<uint32_t>::is_always_lock_free);
};
