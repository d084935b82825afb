#include "arqrx/core/reorder_tolerance.h"

#include <algorithm>
#include <cmath>

namespace arqrx {

namespace {

constexpr double LATE_MARGIN = 1.125; // the next one may be a little later still
constexpr double LATE_HALF_LIFE_US = 5e6;
constexpr double SPACING_SHARE = 1.0 / 32;
constexpr double JITTER_SHARE = 1.0 / 16;

} // namespace

void ReorderTolerance::AddInOrder(int64_t arrivalUs, int64_t mediaUs, uint64_t numbers)
{
    const auto elapsedMediaUs = static_cast<double>(mediaUs - m_nLastMediaUs);
    const auto elapsedUs = static_cast<double>(arrivalUs - m_nLastArrivalUs);
    const bool hadLast = m_bHasLast;
    m_bHasLast = true;
    m_nLastArrivalUs = arrivalUs;
    m_nLastMediaUs = mediaUs;
    if (!hadLast)
        return;
    m_fJitterUs += (std::abs(elapsedUs - elapsedMediaUs) - m_fJitterUs) * JITTER_SHARE;
    const double spacingUs = std::max(elapsedMediaUs, 0.0) / static_cast<double>(numbers);
    if (m_fSpacingUs < 0)
        m_fSpacingUs = spacingUs;
    else // a source that was silent for a minute is not one that sends once a minute
        m_fSpacingUs += (std::min(spacingUs, 4 * m_fSpacingUs + 1000) - m_fSpacingUs) * SPACING_SHARE;
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
