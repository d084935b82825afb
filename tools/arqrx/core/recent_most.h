#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

namespace arqrx {

// The largest of the values of the last second. It is kept in tenths of a second: a value counts for a second at least
// and for a tenth more at most, so that who looks once a second misses none. Time never goes back.
class RecentMost {
public:
    void Add(uint32_t value, int64_t nowUs)
    {
        Slice& slice = m_slices[static_cast<size_t>(nowUs / SLICE_US) % m_slices.size()];
        if (slice.number != nowUs / SLICE_US)
            slice = { nowUs / SLICE_US, 0 };
        slice.most = std::max(slice.most, value);
    }

    // 0: there was none.
    uint32_t Most(int64_t nowUs) const
    {
        uint32_t most = 0;
        for (const Slice& slice : m_slices) {
            if (slice.number > nowUs / SLICE_US - static_cast<int64_t>(m_slices.size()))
                most = std::max(most, slice.most);
        }
        return most;
    }

private:
    static constexpr int64_t SLICE_US = 100'000;

    struct Slice {
        int64_t number = -1; // since the clock's zero; none yet
        uint32_t most = 0;
    };
    std::array<Slice, 11> m_slices {};
};

} // namespace arqrx
