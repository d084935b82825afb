#include "arqrx/core/recover_times.h"

#include <algorithm>

namespace arqrx {

void RecoverTimes::Add(int64_t elapsedUs)
{
    m_times[m_nAdded % KEPT] = static_cast<uint32_t>(std::clamp<int64_t>(elapsedUs, 0, UINT32_MAX));
    ++m_nAdded;
}

int64_t RecoverTimes::Percentile(unsigned percent) const
{
    const size_t count = std::min<uint64_t>(m_nAdded, KEPT);
    if (count == 0)
        return -1;
    std::array<uint32_t, KEPT> sorted = m_times;
    const size_t rank = (count * percent + 99) / 100;
    auto* const wanted = sorted.data() + std::clamp<size_t>(rank, 1, count) - 1;
    std::nth_element(sorted.data(), wanted, sorted.data() + count);
    return *wanted;
}

} // namespace arqrx
