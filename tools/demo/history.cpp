#include "demo/history.h"

#include <algorithm>

namespace demo {

Losses& Losses::operator+=(const Losses& other)
{
    missing += other.missing;
    recovered += other.recovered;
    lost += other.lost;
    return *this;
}

History::History(int64_t lengthUs)
    : m_stretches(static_cast<size_t>(std::max<int64_t>(1, (lengthUs + STRETCH_US - 1) / STRETCH_US)))
{
}

Stretch& History::At(int64_t timeUs)
{
    const auto last = static_cast<int64_t>(m_stretches.size()) - 1;
    return m_stretches[static_cast<size_t>(std::clamp<int64_t>(timeUs / STRETCH_US, 0, last))];
}

// A run with fewer stretches than columns shows some of them more than once.
Stretch History::Column(int index, int columns) const
{
    const auto count = static_cast<int64_t>(m_stretches.size());
    const int64_t from = std::clamp<int64_t>(index * count / columns, 0, count - 1);
    const int64_t to = std::clamp<int64_t>((index + 1) * count / columns, from + 1, count);
    Stretch sum;
    for (int64_t at = from; at < to; ++at) {
        const Stretch& stretch = m_stretches[static_cast<size_t>(at)];
        sum.sent += stretch.sent;
        for (const Side side : SIDES)
            sum.sides[Index(side)] += stretch.sides[Index(side)];
    }
    return sum;
}

} // namespace demo
