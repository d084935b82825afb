#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "arqrx/core/engine.h"
#include "base/byte_order.h"

// What a media datagram is to the stream: the next, one that was missing, one too many, or the sign of a change.

namespace arqrx {

namespace {

constexpr int64_t STEP_US = 200'000; // the proxy's clock stepped, or the packet is not of this stream
constexpr int64_t WRONG_WAY_US = 100'000; // a source's packets may change order before the proxy stamps them
constexpr int FEW_NUMBERS = 64; // so many may be missing, or come late, whatever the timestamps say
constexpr int MOST_DROPOUT = 3000; // numbers jumped by more: RFC 3550, A.1
constexpr double UNEVEN = 4; // a source's rate may be so many times its mean
constexpr double AMBIGUOUS_NUMBERS = 32'768; // more may have passed than 16 bits tell
constexpr uint32_t LAP = 65'536;
constexpr int64_t JOIN_US = 1'000'000; // what was on its way when we joined anew has come by then
constexpr int64_t STRAGGLE_US = 1'000'000; // what a change overtook has come by then

} // namespace

void Receiver::Engine::OnFirstSending(const Arrival& arrival)
{
    if (m_timeline.IsEmpty()) {
        (void)BeginStretch(arrival, false, false);
        return Accept(arrival);
    }
    if (!Fits(arrival))
        return IsStraggler(arrival) ? OnStraggler(arrival) : OnMisfit(arrival);
    if (arrival.timeUs - JOIN_US > m_nJoinedUs) // nothing has changed
        m_nJoinedUs = INT64_MAX;
    ForgetHeld();
    Accept(arrival);
}

// Two that go together are a change; one is enough when we have just joined anew, since the proxy then makes a stream
// of its own for us.
void Receiver::Engine::OnMisfit(const Arrival& arrival)
{
    const bool isJoinedAnew = m_nJoinedUs != INT64_MAX;
    m_nJoinedUs = INT64_MAX;
    if (!m_probation.GoesWith(arrival)) {
        ForgetHeld();
        return isJoinedAnew ? Change(arrival, nullptr) : m_probation.Hold(arrival);
    }
    m_probation.Forget(); // its bytes stay until the next is held
    const Arrival& held = m_probation.Held();
    if (SeqDiff(arrival.words.seq, held.words.seq) > 0)
        Change(held, &arrival);
    else
        Change(arrival, &held);
}

// By the clock of before it is from before the change. Two of these are no change back.
bool Receiver::Engine::IsStraggler(const Arrival& arrival) const
{
    if (!m_former || arrival.words.ssrc != m_former->ssrc
        || std::abs(SeqDiff(arrival.words.seq, m_former->seq)) > MOST_DROPOUT)
        return false;
    const int64_t mediaUs = m_former->clock.MediaUs(arrival.words.timestamp, arrival.timeUs);
    const int64_t fastestUs = m_former->clock.LocalUs(mediaUs);
    return fastestUs <= m_former->endedUs && arrival.timeUs - fastestUs <= STRAGGLE_US;
}

// Its place was never kept: nothing is played out between two stretches.
void Receiver::Engine::OnStraggler(const Arrival& arrival)
{
    ++m_figures.received;
    m_figures.receivedBytes += arrival.datagram.size();
    ++m_figures.reordered;
    ++m_figures.late;
    m_keepAlive.Hear(arrival.timeUs);
}

void Receiver::Engine::ForgetHeld()
{
    if (m_probation.IsHeld())
        ++m_figures.strangers;
    m_probation.Forget();
}

// Does it go with the stream as it was.
bool Receiver::Engine::Fits(const Arrival& arrival)
{
    if (arrival.words.ssrc != m_nSsrc)
        return false;
    const ClockFollower& clock = m_timeline.Newest().clock;
    const int64_t mediaUs = clock.MediaUs(arrival.words.timestamp, arrival.timeUs);
    const int64_t aheadUs = mediaUs - m_nNewestMediaUs;
    const int distance = SeqDiff(arrival.words.seq, m_newest.seq);
    if (distance <= 0)
        return FitsBehind(-distance, aheadUs, arrival);
    // A queue on the way that empties brings packets sooner too, but each only a little sooner than the one before.
    const int64_t stepUs = clock.IsSettled() ? STEP_US : std::max(STEP_US, m_settings.latencyUs);
    const int64_t behindUs = arrival.timeUs - clock.LocalUs(mediaUs);
    const bool isStep = behindUs < -stepUs && behindUs < m_nNewestBehindUs - stepUs;
    return !isStep && FitsAhead(distance, aheadUs);
}

bool Receiver::Engine::FitsAhead(int distance, int64_t aheadUs) const
{
    if (aheadUs < -WRONG_WAY_US)
        return false;
    if (distance <= FEW_NUMBERS)
        return true; // after however long a silence
    const double expected = ExpectedNumbers(aheadUs);
    return expected < AMBIGUOUS_NUMBERS && distance <= UNEVEN * expected + FEW_NUMBERS;
}

bool Receiver::Engine::FitsBehind(int distance, int64_t aheadUs, const Arrival& arrival)
{
    const uint64_t index = m_newest.index - static_cast<uint64_t>(distance);
    if (const Gap* gap = GapOf(index))
        return GoesInto(*gap, arrival.words.timestamp);
    return aheadUs <= WRONG_WAY_US && distance <= UNEVEN * ExpectedNumbers(-aheadUs) + FEW_NUMBERS;
}

// How many numbers go with this time.
double Receiver::Engine::ExpectedNumbers(int64_t aheadUs) const
{
    constexpr double UNKNOWN = 1000;
    const double spacingUs = m_tolerance.SpacingUs();
    return spacingUs < 0 ? UNKNOWN
                         : static_cast<double>(std::max<int64_t>(aheadUs, 0)) / std::max(spacingUs, 1.0);
}

// The stream is not what it was. `later` may be null.
void Receiver::Engine::Change(const Arrival& earlier, const Arrival* later)
{
    const ClockFollower& clock = m_timeline.Newest().clock;
    const int64_t mediaUs = clock.MediaUs(earlier.words.timestamp, earlier.timeUs);
    const int64_t lateUs = earlier.timeUs - clock.LocalUs(mediaUs);
    const bool isSameClock = std::abs(lateUs) <= STEP_US && mediaUs - m_nNewestMediaUs >= -WRONG_WAY_US;
    const int distance = SeqDiff(earlier.words.seq, m_newest.seq);
    const bool isSameRun = earlier.words.ssrc == m_nSsrc && distance > 0 && distance <= MOST_DROPOUT;
    if (!(isSameRun && isSameClock) && !BeginStretch(earlier, isSameRun, isSameClock)) {
        m_figures.strangers += later == nullptr ? 1 : 2;
        return;
    }
    Accept(earlier);
    if (later != nullptr)
        Accept(*later);
}

// The packet will be the first of a new stretch; false when there are too many.
bool Receiver::Engine::BeginStretch(const Arrival& arrival, bool isSameRun, bool isSameClock)
{
    if (m_timeline.IsFull())
        return false;
    const bool isFirst = m_timeline.IsEmpty();
    Stretch stretch;
    stretch.clock
        = isSameClock ? m_timeline.Newest().clock : ClockFollower(arrival.words.timestamp, arrival.timeUs);
    if (isFirst) {
        stretch.firstIndex = FIRST_INDEX;
        stretch.numberShift = LAP + arrival.words.seq - FIRST_INDEX;
    } else if (isSameRun) {
        const int distance = SeqDiff(arrival.words.seq, m_newest.seq);
        stretch.firstIndex = m_newest.index + static_cast<uint64_t>(distance);
        stretch.numberShift = m_timeline.Newest().numberShift;
    } else { // the next higher number that the wire's is a part of
        const uint64_t newestNumber = m_newest.index + m_timeline.Newest().numberShift;
        const uint64_t skipped
            = static_cast<uint16_t>(arrival.words.seq - static_cast<uint16_t>(newestNumber + 1));
        stretch.firstIndex = m_newest.index + 1;
        stretch.numberShift = m_timeline.Newest().numberShift + skipped;
    }
    if (!isSameRun) {
        if (!isFirst)
            m_former = Former { m_nSsrc, m_newest.seq, m_timeline.Newest().clock, arrival.timeUs };
        m_newest
            = { stretch.firstIndex - 1, static_cast<uint16_t>(arrival.words.seq - 1), stretch.firstIndex };
        m_nSsrc = arrival.words.ssrc;
    }
    m_timeline.Add(stretch);
    m_tolerance.ForgetLast();
    if (!isFirst)
        ++m_figures.restarts;
    return true;
}

void Receiver::Engine::Accept(const Arrival& arrival)
{
    ++m_figures.received;
    m_figures.receivedBytes += arrival.datagram.size();
    m_nPayloadType = arrival.words.payloadType;
    m_asker.AddSize(arrival.datagram.size());
    m_keepAlive.Hear(arrival.timeUs);
    const int distance = SeqDiff(arrival.words.seq, m_newest.seq);
    if (distance > 0)
        Append(m_newest.index + static_cast<uint64_t>(distance), arrival);
    else
        OnBehind(m_newest.index - static_cast<uint64_t>(-distance), arrival.datagram, arrival.words, false);
}

// A number higher than all before.
void Receiver::Engine::Append(uint64_t index, const Arrival& arrival)
{
    if (IsHopelesslyBehind())
        (void)BeginStretch(arrival, true, false);
    if (!m_packets.Reach(m_nPlay, index) || !m_missing.Reach(m_nPlay, index)) {
        ++m_figures.overflows;
        return;
    }
    Stretch& stretch = m_timeline.Newest();
    const int64_t mediaUs = stretch.clock.MediaUs(arrival.words.timestamp, arrival.timeUs);
    stretch.fallUs += stretch.clock.Add(mediaUs, arrival.timeUs);
    const int64_t dueUs = stretch.clock.LocalUs(mediaUs) + m_settings.latencyUs;
    m_nNewestBehindUs = arrival.timeUs - stretch.clock.LocalUs(mediaUs);
    m_tolerance.AddArrival(m_nNewestBehindUs);
    m_tolerance.AddSpacing(mediaUs - m_nNewestMediaUs, index - m_newest.index);
    const uint64_t gapFirst = m_newest.index + 1;
    m_newest.index = index;
    m_newest.seq = arrival.words.seq;
    if (Store(index, arrival.datagram, dueUs, false) == nullptr)
        Drop();
    if (gapFirst < index)
        NoticeGap(gapFirst, index, m_nNewestDueUs, dueUs);
    m_nNewestMediaUs = mediaUs;
    m_nNewestDueUs = dueUs;
}

// For 2 s no packet came before it was due: the way has become longer, or the clock stepped back while the source was
// silent. Play-out without a buffer helps nobody.
bool Receiver::Engine::IsHopelesslyBehind() const
{
    return m_timeline.Newest().clock.LatelyBehindUs() > std::max(STEP_US, m_settings.latencyUs);
}

// Nothing came of [first, end), between two packets that are due at these times. What the ring cannot hold any more is
// lost at once, without a look at each.
void Receiver::Engine::NoticeGap(uint64_t first, uint64_t end, int64_t beforeUs, int64_t afterUs)
{
    const uint64_t reach = m_settings.ringPackets - 1; // numbers before `end` that are still in the ring
    const uint64_t asked = std::max(first, end - std::min(reach, end));
    m_figures.missing += std::min(asked, end) - first;
    m_figures.lost += std::min(asked, end) - first;
    const auto steps = static_cast<int64_t>(end - first + 1);
    const auto spacingUs = static_cast<int64_t>(std::max(m_tolerance.SpacingUs(), 0.0));
    for (uint64_t index = asked; index < end; ++index) {
        // The source may have paused: then it is rather close to the one after.
        const int64_t evenUs
            = beforeUs + (afterUs - beforeUs) * static_cast<int64_t>(index - first + 1) / steps;
        const int64_t closeUs = afterUs - spacingUs * static_cast<int64_t>(end - index);
        Gap& gap = m_missing.Add(index, m_nNowUs, std::max(evenUs, closeUs));
        gap.beforeUs = beforeUs;
        gap.afterUs = afterUs;
    }
}

// No room for a packet: its number is lost.
void Receiver::Engine::Drop()
{
    ++m_figures.overflows;
    ++m_figures.missing;
    ++m_figures.lost;
}

void Receiver::Engine::OnResend(std::span<const uint8_t> datagram, const MediaWords& words)
{
    const uint64_t index = m_newest.index - static_cast<uint16_t>(m_newest.seq - words.seq);
    const Gap* gap = m_timeline.IsEmpty() ? nullptr : GapOf(index);
    if (gap != nullptr && !GoesInto(*gap, words.timestamp)) {
        ++m_figures.strangers; // damaged, or of another stream with the same numbers
        return;
    }
    ++m_figures.received;
    ++m_figures.resends;
    m_figures.receivedBytes += datagram.size();
    m_keepAlive.Hear(m_nNowUs);
    if (m_timeline.IsEmpty())
        ++m_figures.late;
    else
        OnBehind(index, datagram, words, true);
}

// What is before the first number had others with another source, or came before we did.
Gap* Receiver::Engine::GapOf(uint64_t index)
{
    return index < m_newest.firstIndex ? nullptr : m_missing.Find(index);
}

void Receiver::Engine::OnBehind(
    uint64_t index, std::span<const uint8_t> datagram, const MediaWords& words, bool isResend)
{
    Gap* gap = GapOf(index);
    if (gap == nullptr && index >= m_newest.firstIndex && m_packets.Knows(index)) {
        ++m_figures.duplicates;
        return;
    }
    if (!isResend)
        ++m_figures.reordered;
    if (gap == nullptr)
        ++m_figures.late;
    else
        Fill(*gap, datagram, DueNear(index, words.timestamp, gap->dueUs), isResend);
}

// Is a timestamp one of those between the gap's neighbours.
bool Receiver::Engine::GoesInto(const Gap& gap, uint32_t timestamp)
{
    const int64_t spareUs = std::max(STEP_US, m_settings.latencyUs);
    const int64_t dueUs = DueNear(gap.index, timestamp, gap.dueUs);
    return dueUs >= std::min(gap.beforeUs, gap.afterUs) - spareUs
        && dueUs <= std::max(gap.beforeUs, gap.afterUs) + spareUs;
}

// When a packet with this timestamp is due, by the clock of its stretch or of the one after: of packets that overtook
// each other while the proxy's clock stepped either may be right.
int64_t Receiver::Engine::DueNear(uint64_t index, uint32_t timestamp, int64_t nearUs)
{
    const auto due = [&](const Stretch& stretch) {
        const int64_t mediaUs = stretch.clock.MediaUs(timestamp, m_nNowUs);
        return stretch.clock.LocalUs(mediaUs) + m_settings.latencyUs;
    };
    const int64_t ownUs = due(m_timeline.Of(index));
    const int64_t newestUs = due(m_timeline.Newest());
    return std::abs(ownUs - nearUs) <= std::abs(newestUs - nearUs) ? ownUs : newestUs;
}

void Receiver::Engine::Fill(Gap& gap, std::span<const uint8_t> datagram, int64_t dueUs, bool isResend)
{
    const int64_t elapsedUs = m_nNowUs - gap.noticedUs;
    if (!isResend) {
        m_tolerance.AddLate(elapsedUs, m_nNowUs);
        m_tolerance.AddArrival(m_nNowUs - (dueUs - m_settings.latencyUs));
    }
    if (Store(gap.index, datagram, dueUs, isResend) == nullptr) {
        ++m_figures.overflows;
        return;
    }
    if (gap.isMissing) {
        --m_figures.waiting;
        ++m_figures.recovered;
        m_recoverTimes.Add(elapsedUs);
    }
    if (isResend)
        m_asker.NoteRecovered(gap, m_nNowUs);
    if (isResend && gap.tries == 1 && !m_roundTrip.IsKnown())
        m_roundTrip.Add(m_nNowUs - gap.askedUs); // asked once: it can only be the answer to that
    m_missing.Remove(gap);
}

Slot* Receiver::Engine::Store(uint64_t index, std::span<const uint8_t> datagram, int64_t dueUs, bool isResend)
{
    Slot* slot = m_packets.Store(index, datagram);
    if (slot == nullptr)
        return nullptr;
    slot->dueUs = dueUs - m_timeline.Of(index).fallUs;
    slot->isResend = isResend;
    if (isResend)
        RestorePayloadType(slot->bytes, m_nPayloadType);
    if (m_nHere == NONE || index < m_nHere) {
        m_nHere = index;
        m_nHereDueUs = dueUs;
    }
    return slot;
}

} // namespace arqrx
