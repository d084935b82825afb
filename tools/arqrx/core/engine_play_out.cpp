#include <algorithm>

#include "arqrx/core/engine.h"

// When a packet is played out, and what is lost by then.

namespace arqrx {

int64_t Receiver::Engine::DueUs(uint64_t index)
{
    return m_packets.At(index).dueUs + m_timeline.Of(index).fallUs;
}

int64_t Receiver::Engine::NextDueUs() const
{
    return std::max(m_nHereDueUs, m_nReleasedUs);
}

// Decides about all that is due, and about what is missing before it.
void Receiver::Engine::Release()
{
    while (m_nHere != NONE) {
        m_nHereDueUs = DueUs(m_nHere);
        if (NextDueUs() > m_nNowUs)
            return;
        GiveUp(m_nRelease, m_nHere);
        m_nReleasedUs = NextDueUs();
        m_packets.At(m_nHere).dueUs = m_nReleasedUs;
        if (m_timeline.Newest().firstIndex <= m_nHere)
            m_timeline.Newest().clock.Settle();
        m_nRelease = m_nHere + 1;
        const uint64_t next = m_packets.Next(m_nRelease, m_newest.index + 1);
        m_nHere = next <= m_newest.index ? next : NONE;
    }
}

// Whatever is missing of [first, end) is lost.
void Receiver::Engine::GiveUp(uint64_t first, uint64_t end)
{
    for (uint64_t index = m_missing.Next(first, end); index != end; index = m_missing.Next(index + 1, end))
        Lose(m_missing.At(index));
}

void Receiver::Engine::Lose(Gap& gap)
{
    if (gap.isMissing)
        --m_figures.waiting;
    else
        ++m_figures.missing;
    ++m_figures.lost;
    m_asker.NoteLost(gap);
    m_missing.Remove(gap);
}

void Receiver::Engine::EndOfStream(int64_t nowUs)
{
    Begin(nowUs);
    if (!m_timeline.IsEmpty())
        GiveUp(m_nRelease, m_newest.index + 1);
    Advance();
}

std::optional<Packet> Receiver::Engine::NextPacket()
{
    FreeOut();
    if (m_nPlay == m_nRelease)
        return std::nullopt;
    const uint64_t index = m_packets.Next(m_nPlay, m_nRelease);
    Slot& slot = m_packets.At(index);
    const bool isRestart = m_timeline.PassTo(index);
    Packet packet { index + m_timeline.Of(index).numberShift, slot.dueUs, { slot.bytes, slot.length },
        slot.isResend, index - m_nPlayed - 1, isRestart };
    m_packets.Unmark(index);
    m_pOut = slot.bytes;
    slot.bytes = nullptr;
    m_nPlayed = index;
    m_nPlay = index + 1;
    ++m_figures.played;
    return packet;
}

void Receiver::Engine::FreeOut()
{
    if (m_pOut != nullptr)
        m_packets.Free(m_pOut);
    m_pOut = nullptr;
}

void Receiver::Engine::ReadGauges()
{
    m_figures.mostAsked = m_mostAsked.Most(m_nNowUs);
    m_figures.buffered = m_packets.Count() - (m_pOut != nullptr ? 1 : 0);
    m_figures.bufferedUs = m_nHere == NONE ? 0 : std::max<int64_t>(m_nNewestDueUs - NextDueUs(), 0);
    m_figures.roundTripUs = m_roundTrip.SmoothedUs();
    m_figures.jitterUs = m_tolerance.JitterUs();
    m_figures.toleranceUs = m_asker.ToleranceUs(m_nNowUs);
    m_figures.driftPpm = m_timeline.IsEmpty() ? 0 : m_timeline.Newest().clock.DriftPpm();
    if (m_nTimesRead == m_recoverTimes.Added())
        return;
    m_nTimesRead = m_recoverTimes.Added();
    m_figures.recoverP50Us = m_recoverTimes.Percentile(50);
    m_figures.recoverP99Us = m_recoverTimes.Percentile(99);
}

} // namespace arqrx
