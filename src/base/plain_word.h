#pragma once

#include <atomic>
#include <type_traits>

// A word that several threads read and write without a lock: flags, counters, settings.
// Every access is a relaxed load or store, the same instructions as for a plain variable. An update made
// of a read and a write (Add) may lose another thread's update made in between: whoever declares one
// says who writes it and why a lost update does no harm. It orders nothing else; see PublishedPtr.
template <typename T>
class PlainWord {
public:
    constexpr PlainWord() noexcept = default;
    // NOLINTNEXTLINE(google-explicit-constructor): reads like the plain word it is
    constexpr PlainWord(T value) noexcept : m_value(value) {}
    PlainWord(const PlainWord&) = delete;
    PlainWord& operator=(const PlainWord& other) noexcept
    {
        Store(other.Load());
        return *this;
    }

    T Load() const noexcept { return m_value.load(std::memory_order_relaxed); }
    void Store(T value) noexcept { m_value.store(value, std::memory_order_relaxed); }

    // Adds without a lock prefix. Wraps, signed numbers too. Not for flags and pointers.
    void Add(T amount) noexcept requires(std::is_integral_v<T> && !std::is_same_v<T, bool>)
    {
        using Unsigned = std::make_unsigned_t<T>;
        Store(static_cast<T>(static_cast<Unsigned>(Load()) + static_cast<Unsigned>(amount)));
    }

    // NOLINTNEXTLINE(google-explicit-constructor): as above
    operator T() const noexcept { return Load(); }
    PlainWord& operator=(T value) noexcept
    {
        Store(value);
        return *this;
    }

private:
    std::atomic<T> m_value {};
    static_assert(std::atomic<T>::is_always_lock_free);
};

// A word that hands over what was written before it: a reader that sees the new value sees all of that
// too. Sequentially consistent, because the removal of a stream (ReadSections) relies on one order of
// "new state published" and "reader entered"; a load costs no more than a plain one on the target machines.
template <typename T>
class PublishedWord {
public:
    constexpr PublishedWord() noexcept = default;
    constexpr explicit PublishedWord(T value) noexcept : m_value(value) {}
    PublishedWord(const PublishedWord&) = delete;
    PublishedWord& operator=(const PublishedWord&) = delete;

    T Load() const noexcept { return m_value.load(std::memory_order_seq_cst); }
    void Store(T value) noexcept { m_value.store(value, std::memory_order_seq_cst); }

    // NOLINTNEXTLINE(google-explicit-constructor): reads like the plain word it is
    operator T() const noexcept { return Load(); }
    PublishedWord& operator=(T value) noexcept
    {
        Store(value);
        return *this;
    }

private:
    std::atomic<T> m_value {};
    static_assert(std::atomic<T>::is_always_lock_free);
};

// A pointer handed from one thread to another without a lock (release on store, acquire on load): who
// loads it may use the record behind it. It does not own that record.
template <typename T>
class PublishedPtr {
public:
    constexpr PublishedPtr() noexcept = default;
    PublishedPtr(const PublishedPtr&) = delete;
    PublishedPtr& operator=(const PublishedPtr&) = delete;

    T* Load() const noexcept { return m_pointer.load(std::memory_order_acquire); }
    void Store(T* pointer) noexcept { m_pointer.store(pointer, std::memory_order_release); }

    // Stores null unless another thread has put something else in place of `expected`.
    void ClearIf(T* expected) noexcept { (void)m_pointer.compare_exchange_strong(expected, nullptr); }

private:
    std::atomic<T*> m_pointer {};
    static_assert(std::atomic<T*>::is_always_lock_free);
};
