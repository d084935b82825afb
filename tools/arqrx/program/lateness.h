#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace arqrx {

// How late packets left, over the last 4096 of them. Threads: one thread's own.
class Lateness {
public:
    void Add(int64_t lateUs);
    // The value below which the fraction `part` (0 to 1) lies; -1 without values.
    int64_t Percentile(double part) const;

private:
    std::vector<int64_t> m_values; // a ring once it is full
    size_t m_nNext = 0;
};

} // namespace arqrx
