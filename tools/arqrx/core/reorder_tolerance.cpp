#include "arqrx/core/reorder_tolerance.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace arqrx {

namespace {

constexpr double LATE_MARGIN = 1.125; // the next one may be a little later still
constexpr double LATE_HALF_LIFE_US = 5e6;
constexpr double SPACING_SHARE = 1.0 / 32;
constexpr double JITTER_SHARE = 1.0 / 16;

} // namespace

void ReorderTolerance::AddArrival(int64_t behindUs)
{
    if (m_bHasArrival)
        m_fJitterUs += (static_cast<double>(std::abs(behindUs - m_nBehindUs)) - m_fJitterUs) * JITTER_SHARE;
    m_bHasArrival = true;
    m_nBehindUs = behindUs;
}

void ReorderTolerance::AddSpacing(int64_t mediaUs, uint64_t numbers)
{
    const double spacingUs
        = static_cast<double>(std::max<int64_t>(mediaUs, 0)) / static_cast<double>(numbers);
    if (m_bHasNewest && m_fSpacingUs < 0)
        m_fSpacingUs = spacingUs;
    else if (m_bHasNewest) // a source that was silent for a minute is not one that sends once a minute
        m_fSpacingUs += (std::min(spacingUs, 4 * m_fSpacingUs + 1000) - m_fSpacingUs) * SPACING_SHARE;
    m_bHasNewest = true;
}

void ReorderTolerance::AddLate(int64_t latenessUs, int64_t nowUs)
{
    m_fLateUs = std::max(LateUs(nowUs), LATE_MARGIN * static_cast<double>(latenessUs));
    m_nLateAtUs = nowUs;
}

double ReorderTolerance::LateUs(int64_t nowUs) const
{
    return m_fLateUs * std::exp2(-static_cast<double>(nowUs - m_nLateAtUs) / LATE_HALF_LIFE_US);
}

int64_t ReorderTolerance::Us(int64_t nowUs) const
{
    return static_cast<int64_t>(std::max({ 2 * m_fJitterUs, m_fSpacingUs / 2, LateUs(nowUs) }));
}

} // namespace arqrx
