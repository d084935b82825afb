#include "arqrx/core/asker.h"

#include <algorithm>
#include <cmath>

namespace arqrx {

namespace {

constexpr int64_t TOGETHER_US = 1'000; // what is due so soon goes along
constexpr int64_t REST_US
    = 1'000; // between two requests: a lossy line at 50,000 packets/s would have one for each
constexpr int64_t LEAST_GUARD_US
    = 5'000; // behind the hold-off: a request that overtakes the one before is in vain
constexpr int64_t MOST_GUARD_US = 25'000;
constexpr int64_t MARGIN_US = 20'000; // for the first try to be in time
constexpr double SIZE_SHARE = 1.0 / 16;

} // namespace

Asker::Asker(const Settings& settings, MissingList& missing, const ReorderTolerance& tolerance,
    const RoundTrip& roundTrip)
    : m_settings(settings),
      m_window(ChooseWindow(settings)),
      m_missing(missing),
      m_tolerance(tolerance),
      m_roundTrip(roundTrip)
{
}

void Asker::Advance(const Newest& newest, bool isAllowed, int64_t nowUs, Figures& figures)
{
    if (nowUs < m_nRestUs)
        return;
    TakeAgain(newest, isAllowed, nowUs);
    TakeFirst(newest, isAllowed, nowUs, figures);
}

void Asker::TakeFirst(const Newest& newest, bool isAllowed, int64_t nowUs, Figures& figures)
{
    const Gap* next = m_missing.FirstOf(Gap::Turn::First);
    const int64_t toleranceUs = ToleranceUs(nowUs);
    if (next == nullptr || next->noticedUs + toleranceUs > nowUs)
        return;
    const int64_t togetherUs = std::min(TOGETHER_US, toleranceUs / 2);
    while (Gap* gap = m_missing.FirstOf(Gap::Turn::First)) {
        if (gap->noticedUs + toleranceUs > nowUs + togetherUs)
            return;
        gap->isMissing = true;
        ++figures.missing;
        ++figures.waiting;
        Enlist(*gap, isAllowed && IsWorthIt(*gap, newest, nowUs));
    }
}

void Asker::TakeAgain(const Newest& newest, bool isAllowed, int64_t nowUs)
{
    const Gap* next = m_missing.FirstOf(Gap::Turn::Again);
    const int64_t afterUs = AgainAfterUs();
    if (next == nullptr || next->askedUs + afterUs > nowUs)
        return;
    while (Gap* gap = m_missing.FirstOf(Gap::Turn::Again)) {
        if (gap->askedUs + afterUs > nowUs + TOGETHER_US)
            return;
        Enlist(*gap, isAllowed && IsWorthIt(*gap, newest, nowUs));
    }
}

void Asker::Enlist(Gap& gap, bool isWanted)
{
    m_missing.Move(gap, isWanted ? Gap::Turn::Now : Gap::Turn::Never);
    if (isWanted)
        m_due.push_back(gap.index);
}

// Does the ring still hold it, and does its answer come in time.
bool Asker::IsWorthIt(const Gap& gap, const Newest& newest, int64_t nowUs) const
{
    if (gap.index < newest.firstIndex || newest.index - gap.index >= m_settings.ringPackets)
        return false;
    const int64_t answerUs = m_roundTrip.IsKnown() ? m_roundTrip.SmoothedUs() - m_roundTrip.VariationUs() : 0;
    return nowUs + std::max<int64_t>(answerUs, 0) < gap.dueUs;
}

std::span<const uint16_t> Asker::TakeRequest(const Newest& newest, int64_t nowUs)
{
    if (m_nTaken == 0)
        std::ranges::sort(m_due);
    const auto meanBytes = static_cast<uint32_t>(std::ceil(m_fMeanBytes));
    const size_t most = MostNumbers(m_settings, m_window, meanBytes);
    size_t count = 0;
    for (; m_nTaken < m_due.size() && count < most; ++m_nTaken) {
        Gap* gap = m_missing.Find(m_due[m_nTaken]);
        if (gap == nullptr || gap->turn != Gap::Turn::Now || !Ask(*gap, newest, nowUs))
            continue;
        m_numbers[count] = static_cast<uint16_t>(newest.seq - (newest.index - gap->index));
        ++count;
    }
    if (m_nTaken == m_due.size()) {
        m_due.clear();
        m_nTaken = 0;
    }
    if (count > 0)
        m_nRestUs = nowUs + REST_US;
    return std::span(m_numbers).first(count);
}

// Notes that it is asked for; false when that has become pointless.
bool Asker::Ask(Gap& gap, const Newest& newest, int64_t nowUs)
{
    if (!IsWorthIt(gap, newest, nowUs)) {
        m_missing.Move(gap, Gap::Turn::Never);
        return false;
    }
    gap.askedUs = nowUs;
    ++gap.tries;
    const bool isAgain = IsWorthIt(gap, newest, nowUs + AgainAfterUs());
    m_missing.Move(gap, isAgain ? Gap::Turn::Again : Gap::Turn::Never);
    return true;
}

int64_t Asker::NextUs(int64_t nowUs) const
{
    int64_t next = INT64_MAX;
    if (const Gap* gap = m_missing.FirstOf(Gap::Turn::First))
        next = gap->noticedUs + ToleranceUs(nowUs);
    if (const Gap* gap = m_missing.FirstOf(Gap::Turn::Again))
        next = std::min(next, gap->askedUs + AgainAfterUs());
    return next == INT64_MAX ? next : std::max(next, m_nRestUs);
}

// The answer to the last try must have had its time, and the proxy's hold-off must be over, which began when it sent.
int64_t Asker::AgainAfterUs() const
{
    const int64_t guardUs = std::clamp(2 * m_tolerance.JitterUs(), LEAST_GUARD_US, MOST_GUARD_US);
    const int64_t holdOffUs = m_settings.holdOffUs + guardUs;
    if (!m_roundTrip.IsKnown())
        return holdOffUs;
    return std::max(holdOffUs, m_roundTrip.SmoothedUs() + 4 * m_roundTrip.VariationUs());
}

int64_t Asker::ToleranceUs(int64_t nowUs) const
{
    const int64_t latencyUs = m_settings.latencyUs;
    const int64_t answerUs = m_roundTrip.IsKnown() ? m_roundTrip.SmoothedUs() : latencyUs / 2;
    const int64_t mostUs = std::max<int64_t>(latencyUs - answerUs - std::min(MARGIN_US, latencyUs / 4), 0);
    return std::min(m_tolerance.Us(nowUs), mostUs);
}

void Asker::AddSize(size_t bytes)
{
    const auto size = static_cast<double>(bytes);
    m_fMeanBytes = m_fMeanBytes == 0 ? size : m_fMeanBytes + (size - m_fMeanBytes) * SIZE_SHARE;
}

} // namespace arqrx
