#include "simulation/arqrx_playout.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>

#include "simulation/failure.h"
#include "simulation/time_units.h"

namespace simulation {

namespace {

using Verdict = EngineModel::Verdict;

constexpr int JUMP = 30000; // numbers
constexpr int LATEST = 5000; // numbers by which a packet is late; more than that is ahead by a lap
// Tolerance, round trip and hold-off fit in, at their longest.
constexpr int64_t ASKED_WITHIN_US = 900 * MS;
constexpr int64_t PLAYED_WITHIN_US = SECOND; // behind the latency
constexpr int64_t SETTLED_WITHIN_US = 500 * MS; // and the latency, behind a change
constexpr int64_t MIXED_US
    = 300 * MS; // behind a change packets of both streams come, and either may be taken
constexpr int64_t LATENESS_US = MS; // it is woken to the microsecond

int Ahead16(uint16_t a, uint16_t b)
{
    return static_cast<int16_t>(a - b);
}

uint16_t SeqOf(std::span<const uint8_t> datagram)
{
    return static_cast<uint16_t>(datagram[2] << 8 | datagram[3]);
}

} // namespace

void ArqrxPlayOut::OnArrival(uint16_t seq)
{
    const int ahead = m_newest ? Ahead16(seq, *m_newest) : 1;
    const bool isUnknown = m_newest && (ahead > JUMP || ahead < -LATEST);
    if (isUnknown) // after so long a pause 16 bits do not tell how far it goes
        m_ahead.clear();
    if (ahead > 0 || isUnknown) {
        const int inRing = static_cast<int>(m_settings.ringPackets) - 1;
        const int missed = m_newest ? std::min(isUnknown ? inRing : ahead - 1, inRing) : 0;
        for (int i = 1; i <= missed; ++i)
            m_ahead[static_cast<uint16_t>(seq - i)] = { .missedUs = NowUs() };
        m_ahead[seq] = {};
        m_newest = seq;
    }
    m_nArrivedUs = NowUs();
    const bool isBehind = m_lastNumber && Ahead16(seq, static_cast<uint16_t>(*m_lastNumber)) <= 0;
    // Before the first of all, or so far behind that the ring has lost it: nobody waits for it.
    const bool isUnexpected = !m_ahead.contains(seq);
    if (!isBehind && m_ahead[seq].arrivedUs < 0)
        m_ahead[seq].arrivedUs = NowUs();
    if (!isBehind)
        m_ahead[seq].isDoubtful |= isUnexpected || NowUs() - m_nChangedUs < MIXED_US;
    m_lastArrived[m_nArrived++ % LAST_ARRIVED] = seq;
}

void ArqrxPlayOut::OnDisbelieved()
{
    for (const uint16_t seq : m_lastArrived) {
        if (const auto found = m_ahead.find(seq); found != m_ahead.end())
            found->second.isDoubtful = true;
    }
}

void ArqrxPlayOut::OnAsked(uint16_t seq, bool isUnsure)
{
    const auto found = m_ahead.find(seq);
    const bool isUnclear = NowUs() - m_nChangedUs < m_settings.latencyUs; // which stream's numbers these are
    if (isUnclear && (found == m_ahead.end() || found->second.arrivedUs >= 0))
        return;
    if (found == m_ahead.end() || (found->second.missedUs < 0 && !found->second.isDoubtful))
        return Fail(Outcome::BrokenInvariant, "receiver %d asks for number %d, which it does not miss",
            m_nReceiver, seq);
    Ahead& ahead = found->second;
    m_machine.Note(Happened::AsksFor, static_cast<uint64_t>(m_nReceiver), seq);
    REQUIRE_THAT(ahead.arrivedUs < 0 || ahead.isDoubtful, "receiver %d asks for number %d, which it has",
        m_nReceiver, seq);
    REQUIRE_THAT(ahead.askedUs < 0 || NowUs() - ahead.askedUs >= m_settings.holdOffUs - MS,
        "receiver %d asks for number %d again after %" PRId64 " us", m_nReceiver, seq,
        NowUs() - ahead.askedUs);
    REQUIRE_THAT(isUnsure || Ahead16(*m_newest, seq) < static_cast<int>(m_settings.ringPackets),
        "receiver %d asks for number %d when the ring holds it no more: number %d is there", m_nReceiver, seq,
        *m_newest);
    ahead.askedUs = NowUs();
}

void ArqrxPlayOut::OnVerdict(uint16_t seq, Verdict verdict)
{
    const auto found = m_ahead.find(seq);
    if (found != m_ahead.end())
        found->second.verdict = verdict;
}

void ArqrxPlayOut::OnPlayed(const arqrx::Packet& packet, int64_t localUs)
{
    const uint16_t seq = SeqOf(packet.datagram);
    m_machine.Note(packet.isRestart ? Happened::BeginsAfresh : Happened::Plays,
        static_cast<uint64_t>(m_nReceiver), packet.number, packet.lostBefore);
    CheckTime(packet, localUs);
    CheckOrder(packet);
    CheckBytes(packet);
    if (m_lastNumber && !packet.isRestart) {
        for (uint64_t number = *m_lastNumber + 1; number < packet.number; ++number)
            CheckLeftOut(static_cast<uint16_t>(number));
        m_nLeftOut += packet.lostBefore;
    } else {
        m_nRestarts += m_lastNumber ? 1 : 0;
        std::erase_if(m_ahead, [seq](const auto& entry) { return Ahead16(entry.first, seq) < 0; });
    }
    m_ahead.erase(seq);
    m_lastNumber = packet.number;
    m_nLastPlayedUs = NowUs();
    ++m_nPlayed;
}

// Not before its time; and not behind it, unless it came late and nothing that follows had been due yet, or another
// stream begins with it, of which it alone was no proof.
void ArqrxPlayOut::CheckTime(const arqrx::Packet& packet, int64_t localUs) const
{
    const uint16_t seq = SeqOf(packet.datagram);
    const auto found = m_ahead.find(seq);
    const bool mayBeLate = NowUs() - m_nChangedUs <= m_settings.latencyUs + SETTLED_WITHIN_US
        || packet.isRestart || (found != m_ahead.end() && found->second.arrivedUs == NowUs());
    REQUIRE_THAT(packet.dueUs <= localUs && (mayBeLate || localUs - packet.dueUs <= LATENESS_US),
        "receiver %d plays number %d %" PRId64 " us behind its time", m_nReceiver, seq,
        localUs - packet.dueUs);
}

void ArqrxPlayOut::CheckOrder(const arqrx::Packet& packet) const
{
    const uint16_t seq = SeqOf(packet.datagram);
    REQUIRE_THAT(static_cast<uint16_t>(packet.number) == seq,
        "receiver %d plays number %d as number %" PRIu64, m_nReceiver, seq, packet.number);
    if (!m_lastNumber || packet.isRestart)
        return;
    REQUIRE_THAT(packet.number > *m_lastNumber, "receiver %d plays number %" PRIu64 " behind %" PRIu64,
        m_nReceiver, packet.number, *m_lastNumber);
    REQUIRE_THAT(packet.lostBefore == packet.number - *m_lastNumber - 1,
        "receiver %d plays number %" PRIu64 " behind %" PRIu64 " and says that %" PRIu64 " are lost",
        m_nReceiver, packet.number, *m_lastNumber, packet.lostBefore);
}

void ArqrxPlayOut::CheckBytes(const arqrx::Packet& packet) const
{
    const uint16_t seq = SeqOf(packet.datagram);
    REQUIRE_THAT(m_source.HasSent(seq, packet.datagram),
        "receiver %d plays number %d in %zu bytes that the source never sent under it", m_nReceiver, seq,
        packet.datagram.size());
}

// It is lost: it had not come when its predecessor was played. In the calm it must have been asked for, unless the
// ring had dropped it or the proxy refused it.
void ArqrxPlayOut::CheckLeftOut(uint16_t seq)
{
    const auto found = m_ahead.find(seq);
    if (found == m_ahead.end()) // from before it began
        return;
    const Ahead ahead = found->second;
    m_ahead.erase(found);
    REQUIRE_THAT(ahead.arrivedUs < 0 || ahead.arrivedUs >= m_nLastPlayedUs || ahead.isDoubtful,
        "receiver %d does not play number %d, which came %" PRId64 " us before the one before it was played",
        m_nReceiver, seq, m_nLastPlayedUs - ahead.arrivedUs);
    const int64_t sinceUs = std::max({ ahead.missedUs, m_nCalmUs, m_nDisturbedUs });
    const int64_t untilUs = std::min(NowUs(), m_source.SentUs(seq) + m_settings.latencyUs); // it is of use
    const bool canAsk = m_settings.isAsking && !ahead.isDoubtful && ahead.verdict == Verdict::Resent
        && Ahead16(*m_newest, seq) < static_cast<int>(m_settings.ringPackets);
    if (canAsk && sinceUs <= untilUs - ASKED_WITHIN_US && ahead.askedUs < sinceUs)
        Fail(Outcome::LostLiveness, "receiver %d missed number %d for %" PRId64 " us and did not ask for it",
            m_nReceiver, seq, untilUs - sinceUs);
}

void ArqrxPlayOut::CheckAllPlayed() const
{
    if (!m_newest || NowUs() - m_nArrivedUs < m_settings.latencyUs + PLAYED_WITHIN_US)
        return;
    if (!m_lastNumber || static_cast<uint16_t>(*m_lastNumber) != *m_newest)
        Fail(Outcome::LostLiveness, "receiver %d has not played number %d, which it got as the last",
            m_nReceiver, *m_newest);
}

} // namespace simulation
