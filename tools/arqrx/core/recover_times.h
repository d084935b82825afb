#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace arqrx {

// How long the last packets took to recover, and what share took no longer. Of fixed size.
class RecoverTimes {
public:
    static constexpr size_t KEPT = 1024;

    void Add(int64_t elapsedUs);
    // The shortest time within which `percent` of those kept came (nearest rank); -1 when there is none. 1 to 100.
    int64_t Percentile(unsigned percent) const;
    uint64_t Added() const { return m_nAdded; }

private:
    std::array<uint32_t, KEPT> m_times {}; // more than 71 minutes are 71 minutes
    uint64_t m_nAdded = 0;
};

} // namespace arqrx
