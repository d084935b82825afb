#include "arqctl/core/history.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace arqctl {

namespace {

bool ShowsLargest(size_t curve)
{
    return curve == static_cast<size_t>(Curve::Lost) || curve == static_cast<size_t>(Curve::ReportedLost);
}

float ThinnedCurve(const std::vector<HistorySample>& samples, size_t curve)
{
    double sum = 0;
    float largest = 0;
    int known = 0;
    for (const HistorySample& sample : samples) {
        if (std::isnan(sample[curve]))
            continue;
        sum += static_cast<double>(sample[curve]);
        largest = known == 0 ? sample[curve] : std::max(largest, sample[curve]);
        known++;
    }
    if (known == 0)
        return std::numeric_limits<float>::quiet_NaN();
    return ShowsLargest(curve) ? largest : static_cast<float>(sum / known);
}

int64_t Ceiling(int64_t amount, int64_t unit)
{
    return (amount + unit - 1) / unit;
}

} // namespace

HistorySample UnknownSample()
{
    HistorySample sample;
    sample.fill(std::numeric_limits<float>::quiet_NaN());
    return sample;
}

HistorySample Thinned(const std::vector<HistorySample>& samples)
{
    HistorySample thinned {};
    for (size_t curve = 0; curve < CURVES; curve++)
        thinned[curve] = ThinnedCurve(samples, curve);
    return thinned;
}

History::Ring::Ring(int64_t step, int64_t seconds)
    : m_nStep(step),
      m_samples(static_cast<size_t>(seconds / step), UnknownSample())
{
}

// What lies between is not known.
void History::Ring::SkipTo(int64_t index)
{
    const auto length = static_cast<int64_t>(m_samples.size());
    for (int64_t skipped = std::max(m_nLast + 1, index - length + 1); skipped < index; skipped++)
        m_samples[static_cast<size_t>(skipped % length)] = UnknownSample();
}

void History::Ring::Put(int64_t index, const HistorySample& sample)
{
    SkipTo(index);
    m_samples[static_cast<size_t>(index % static_cast<int64_t>(m_samples.size()))] = sample;
    m_nLast = index;
}

const HistorySample* History::Ring::At(int64_t index) const
{
    const auto length = static_cast<int64_t>(m_samples.size());
    if (index < 0 || index > m_nLast || index <= m_nLast - length)
        return nullptr;
    return &m_samples[static_cast<size_t>(index % length)];
}

History::History() : m_fine(1, FINE_SECONDS), m_coarse(COARSE_STEP, COARSE_SECONDS)
{
    m_coarseSamples.reserve(COARSE_STEP);
}

void History::Add(int64_t second, const HistorySample& sample)
{
    if (second <= m_nLastSecond)
        return;
    m_nLastSecond = second;
    m_fine.Put(second, sample);
    if (second / COARSE_STEP != m_nCoarseIndex)
        m_coarseSamples.clear();
    m_nCoarseIndex = second / COARSE_STEP;
    m_coarseSamples.push_back(sample);
    m_coarse.Put(m_nCoarseIndex, Thinned(m_coarseSamples));
}

History::Columns History::Read(int64_t nowSecond, int64_t span, int64_t points) const
{
    const Ring& ring = span <= FINE_SECONDS ? m_fine : m_coarse;
    Columns columns;
    columns.stepSeconds = Ceiling(Ceiling(span, points), ring.Step()) * ring.Step();
    const int64_t steps = std::max<int64_t>(span / columns.stepSeconds, 1);
    const int64_t last = nowSecond / columns.stepSeconds;
    std::vector<HistorySample> samples;
    for (int64_t step = last - steps + 1; step <= last; step++) {
        samples.clear();
        const int64_t begin = step * columns.stepSeconds;
        // The clock began at 0: before that nothing is known.
        for (int64_t second = std::max<int64_t>(begin, 0); second < begin + columns.stepSeconds;
             second += ring.Step()) {
            if (const HistorySample* sample = ring.At(second / ring.Step()))
                samples.push_back(*sample);
        }
        const HistorySample thinned = Thinned(samples);
        columns.seconds.push_back(begin);
        for (size_t curve = 0; curve < CURVES; curve++)
            columns.values[curve].push_back(thinned[curve]);
    }
    return columns;
}

} // namespace arqctl
