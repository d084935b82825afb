#include "arqctl/core/shortfall.h"

#include <algorithm>
#include <limits>

namespace arqctl {

namespace {

uint64_t LessOrNone(uint64_t a, uint64_t b)
{
    return a > b ? a - b : 0;
}

uint64_t CappedSum(uint64_t a, uint64_t b)
{
    return std::min(a, std::numeric_limits<uint64_t>::max() - b) + b;
}

} // namespace

Shortfall::Settled Shortfall::Take(uint64_t sent, uint64_t least, uint64_t most, uint64_t underWay)
{
    const uint64_t surplus = LessOrNone(sent, most);
    const uint64_t beyond = LessOrNone(surplus, m_nMissing);
    m_nMissing = CappedSum(LessOrNone(m_nMissing, surplus), LessOrNone(least, sent));
    return { beyond, Settle(underWay) };
}

uint64_t Shortfall::Settle(uint64_t underWay)
{
    const uint64_t lasting = std::min({ m_nMissing, m_before[0], m_before[1] });
    const uint64_t withheld = std::max(lasting, LessOrNone(m_nMissing, underWay));
    m_nMissing -= withheld;
    m_before = { m_nMissing, LessOrNone(m_before[0], withheld) };
    return withheld;
}

} // namespace arqctl
