#include "arqrx/core/asker.h"

#include <algorithm>
#include <cmath>

namespace arqrx {

namespace {

constexpr int64_t TOGETHER_US = 1'000; // what is due so soon goes along
// Between two requests: a lossy line at 50,000 packets/s would have one for each packet.
constexpr int64_t REST_US = 1'000;
// Behind the hold-off: a request that comes too early at the proxy is in vain.
constexpr int64_t LEAST_GUARD_US = 5'000;
constexpr int64_t MOST_GUARD_US = 25'000;
constexpr int64_t MARGIN_US = 20'000; // for the first try to be in time
constexpr double SIZE_SHARE = 1.0 / 16;
constexpr double FAIL_SHARE = 1.0 / 64;
constexpr double ENOUGH_FAIL = 1e-4; // of what is missing: that little may be lost in spite of all tries

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
    TakeAgain(Gap::Turn::Soon, newest, isAllowed, nowUs);
    TakeAgain(Gap::Turn::Again, newest, isAllowed, nowUs);
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

void Asker::TakeAgain(Gap::Turn turn, const Newest& newest, bool isAllowed, int64_t nowUs)
{
    const Gap* next = m_missing.FirstOf(turn);
    const int64_t afterUs = AfterUs(turn);
    if (next == nullptr || next->askedUs + afterUs > nowUs)
        return;
    while (Gap* gap = m_missing.FirstOf(turn)) {
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
    if (gap.tries == 1)
        gap.firstAskedUs = nowUs;
    m_missing.Move(gap, TurnAfterAsking(gap, newest, nowUs));
    return true;
}

int64_t Asker::NextUs(int64_t nowUs) const
{
    int64_t next = INT64_MAX;
    if (const Gap* gap = m_missing.FirstOf(Gap::Turn::First))
        next = gap->noticedUs + ToleranceUs(nowUs);
    for (const Gap::Turn turn : { Gap::Turn::Again, Gap::Turn::Soon }) {
        if (const Gap* gap = m_missing.FirstOf(turn))
            next = std::min(next, gap->askedUs + AfterUs(turn));
    }
    return next == INT64_MAX ? next : std::max(next, m_nRestUs);
}

// Where the round trip is longer than the hold-off, asking before the answer can be here may bring a packet twice. That
// is worth it only if the tries that are left otherwise would likely all fail.
Gap::Turn Asker::TurnAfterAsking(const Gap& gap, const Newest& newest, int64_t nowUs) const
{
    const int64_t holdOffUs = AfterUs(Gap::Turn::Soon);
    const int64_t answerUs = AfterUs(Gap::Turn::Again);
    const int64_t leftUs = gap.dueUs - nowUs - std::max<int64_t>(m_roundTrip.SmoothedUs(), 0);
    const int64_t triesLeft = std::max<int64_t>(leftUs, 0) / answerUs;
    const bool isSoon
        = answerUs > holdOffUs && std::pow(m_fFailShare, static_cast<double>(1 + triesLeft)) > ENOUGH_FAIL;
    const Gap::Turn turn = isSoon ? Gap::Turn::Soon : Gap::Turn::Again;
    return IsWorthIt(gap, newest, nowUs + AfterUs(turn)) ? turn : Gap::Turn::Never;
}

// The proxy's hold-off began when it sent, and a request must not overtake the one before.
int64_t Asker::GuardedHoldOffUs() const
{
    return m_settings.holdOffUs + std::clamp(2 * m_tolerance.JitterUs(), LEAST_GUARD_US, MOST_GUARD_US);
}

int64_t Asker::AfterUs(Gap::Turn turn) const
{
    const int64_t holdOffUs = GuardedHoldOffUs();
    if (turn == Gap::Turn::Soon || !m_roundTrip.IsKnown())
        return holdOffUs;
    return std::max(holdOffUs, m_roundTrip.LongUs());
}

// An answer that came sooner than one to a second try could is the first one's.
void Asker::NoteRecovered(const Gap& gap, int64_t nowUs)
{
    if (gap.tries == 0 || !m_roundTrip.IsKnown())
        return;
    const int64_t spareUs = std::min(4 * m_roundTrip.VariationUs(), m_settings.holdOffUs / 2);
    const bool isFirst
        = nowUs - gap.firstAskedUs <= m_roundTrip.SmoothedUs() + std::max(spareUs, TOGETHER_US);
    m_fFailShare += ((isFirst ? 0 : 1) - m_fFailShare) * FAIL_SHARE;
}

void Asker::NoteLost(const Gap& gap)
{
    if (gap.tries > 0)
        m_fFailShare += (1 - m_fFailShare) * FAIL_SHARE;
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
