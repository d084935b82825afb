#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace arqrx {

// Entries by number, for a span of numbers that moves on, with one mark each that can be searched for 64 at a time. It
// grows with the span, up to what 16 bits of sequence number can tell apart, and never shrinks. What lies behind the
// span stays readable until its place is taken. T has a member `index`, the number that the entry is for; 0: none.
template <typename T>
class NumberRing {
public:
    static constexpr size_t MOST = 65'536;

    // Makes room so that no two numbers of [first, last] share a place; false when that is more than MOST or there is
    // no memory, and nothing has changed.
    bool Reach(uint64_t first, uint64_t last)
    {
        if (last - first < m_nCapacity)
            return true;
        return last - first < MOST && Grow(std::bit_ceil(std::max<size_t>(last - first + 1, FIRST)));
    }

    // The place of a number within the span, whatever is there.
    T& Place(uint64_t index) { return m_entries[index & (m_nCapacity - 1)]; }

    // The entry of a number; null when there is none or another took its place.
    T* Find(uint64_t index)
    {
        if (m_nCapacity == 0)
            return nullptr;
        T& entry = Place(index);
        return entry.index == index ? &entry : nullptr;
    }

    void Mark(uint64_t index) { Word(index) |= Bit(index); }
    void Unmark(uint64_t index) { Word(index) &= ~Bit(index); }

    // The first marked number of [first, end), or `end`. The range is no longer than the span.
    uint64_t NextMarked(uint64_t first, uint64_t end) const
    {
        while (first < end) {
            const uint64_t rest = Word(first) >> (first % WORD_BITS);
            if (rest != 0)
                return std::min(end, first + static_cast<uint64_t>(std::countr_zero(rest)));
            first += WORD_BITS - first % WORD_BITS;
        }
        return end;
    }

private:
    static constexpr size_t FIRST = 1024; // numbers to begin with
    static constexpr size_t WORD_BITS = 64;

    static uint64_t Bit(uint64_t index) { return uint64_t { 1 } << (index % WORD_BITS); }
    uint64_t& Word(uint64_t index) { return m_marks[(index & (m_nCapacity - 1)) / WORD_BITS]; }
    const uint64_t& Word(uint64_t index) const { return m_marks[(index & (m_nCapacity - 1)) / WORD_BITS]; }

    bool Grow(size_t capacity)
    {
        NumberRing larger;
        larger.m_entries.reset(new (std::nothrow) T[capacity]);
        larger.m_marks.reset(new (std::nothrow) uint64_t[capacity / WORD_BITS]());
        if (!larger.m_entries || !larger.m_marks)
            return false;
        larger.m_nCapacity = capacity;
        for (size_t place = 0; place < m_nCapacity; ++place) {
            const T& entry = m_entries[place];
            if (entry.index == 0)
                continue;
            larger.Place(entry.index) = entry;
            if ((Word(entry.index) & Bit(entry.index)) != 0)
                larger.Mark(entry.index);
        }
        std::swap(m_entries, larger.m_entries);
        std::swap(m_marks, larger.m_marks);
        m_nCapacity = capacity;
        return true;
    }

    std::unique_ptr<T[]> m_entries;
    std::unique_ptr<uint64_t[]> m_marks;
    size_t m_nCapacity = 0; // a power of two
};

} // namespace arqrx
