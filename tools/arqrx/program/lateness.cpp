#include "arqrx/program/lateness.h"

#include <algorithm>

namespace arqrx {

namespace {

constexpr size_t VALUES = 4096;

} // namespace

void Lateness::Add(int64_t lateUs)
{
    if (m_values.size() < VALUES) {
        m_values.push_back(lateUs);
        return;
    }
    m_values[m_nNext] = lateUs;
    m_nNext = (m_nNext + 1) % VALUES;
}

int64_t Lateness::Percentile(double part) const
{
    if (m_values.empty())
        return -1;
    std::vector<int64_t> sorted = m_values;
    const auto place = static_cast<ptrdiff_t>(part * static_cast<double>(sorted.size() - 1));
    std::nth_element(sorted.begin(), sorted.begin() + place, sorted.end());
    return sorted[static_cast<size_t>(place)];
}

} // namespace arqrx
