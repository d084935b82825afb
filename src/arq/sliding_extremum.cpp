#include "arq/sliding_extremum.h"

#include <algorithm>
#include <limits>
#include <new>

namespace {

constexpr int32_t SMALLEST = std::numeric_limits<int32_t>::min();
constexpr int32_t LARGEST = std::numeric_limits<int32_t>::max();

int32_t FillValue(SlidingExtremum::Mode mode)
{
    if (mode == SlidingExtremum::MINIMUM)
        return LARGEST;
    return mode == SlidingExtremum::MAXIMUM ? SMALLEST : 0;
}

} // namespace

SlidingExtremum::SlidingExtremum(bool& ok, int32_t length, Mode mode)
    : m_nLength(length),
      m_mode(mode),
      m_samples(new (std::nothrow) int32_t[static_cast<size_t>(length)]),
      m_bMapForm(length > LONGEST_LINEAR_WINDOW)
{
    if (!m_samples) {
        ok = false;
        return;
    }
    Reset(FillValue(mode));
}

void SlidingExtremum::Reset(int32_t value)
{
    std::fill_n(m_samples.get(), m_nLength, value);
    m_nPosition = 0;
    m_nMinimum = value;
    m_nMaximum = value;
    if (m_bMapForm) {
        m_bFull = false;
        m_counts.clear();
    }
}

void SlidingExtremum::Add(int32_t sample)
{
    int32_t& place = m_samples[static_cast<size_t>(m_nPosition)];
    if (m_bMapForm)
        CountInMap(static_cast<uint32_t>(sample), static_cast<uint32_t>(place));
    place = sample;
    if (++m_nPosition == m_nLength) {
        m_bFull = true;
        m_nPosition = 0;
    }
}

// Keeps the map a multiset of the window: a full window loses `outgoing` for `incoming`.
void SlidingExtremum::CountInMap(uint32_t incoming, uint32_t outgoing)
{
    if (m_bFull && incoming == outgoing)
        return;
    if (m_bFull)
        DropFromMap(outgoing);
    ++m_counts[incoming];
}

void SlidingExtremum::DropFromMap(uint32_t outgoing)
{
    const auto found = m_counts.find(outgoing);
    if (found != m_counts.end() && --found->second == 0)
        m_counts.erase(found);
}

void SlidingExtremum::Recompute()
{
    if (m_bMapForm)
        return;
    const int32_t* begin = m_samples.get();
    const int32_t* end = begin + m_nLength;
    if (m_mode != MAXIMUM)
        m_nMinimum = *std::min_element(begin, end);
    if (m_mode != MINIMUM)
        m_nMaximum = *std::max_element(begin, end);
}

int32_t SlidingExtremum::Minimum()
{
    if (m_bMapForm && !m_counts.empty())
        m_nMinimum = static_cast<int32_t>(m_counts.begin()->first);
    return m_nMinimum;
}

int32_t SlidingExtremum::Maximum()
{
    if (m_bMapForm && !m_counts.empty())
        m_nMaximum = static_cast<int32_t>(m_counts.rbegin()->first);
    return m_nMaximum;
}
