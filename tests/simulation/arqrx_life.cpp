#include "simulation/arqrx_life.h"

#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "simulation/failure.h"
#include "simulation/time_units.h"
#include "simulation/words.h"

namespace simulation {

namespace {

constexpr size_t MEDIA_BYTES = 12;
constexpr size_t TAG_BYTES = 8;
constexpr size_t REQUEST_HEADER_BYTES = 10;
constexpr uint8_t RESENT_TYPE = 122;
constexpr int64_t PAUSE_US = 500 * MS; // in which media may be taken for ended
constexpr int NEW_STREAM_JUMP = 100; // numbers that may be taken for another stream
constexpr int64_t CLEAR_STEP_US = 2 * SECOND; // of the clock: nobody takes it for a delay
constexpr int64_t STEP_SEEN_US = 3 * SECOND; // behind it and the latency
// A wake-up for each thing done, and some for each second: pings, echoes, and a margin.
constexpr uint64_t WAKE_UPS_EACH = 3;
constexpr uint64_t WAKE_UPS_A_SECOND = 25;

// What 32 bits of ticks show of a step: whole laps of 13 hours are nothing.
int64_t ShownUs(int64_t byUs)
{
    const auto ticks = static_cast<int32_t>(static_cast<uint32_t>(byUs / 100 * 9));
    return int64_t { ticks } * 100 / 9;
}

bool IsMedia(const std::vector<uint8_t>& bytes)
{
    return bytes.size() >= MEDIA_BYTES && bytes[0] == 0x80;
}

// An echo or a stop message.
bool IsAnswer(const std::vector<uint8_t>& bytes)
{
    return bytes.size() >= 4 && (Word16(&bytes[2]) == 0xE2AD || Word16(bytes.data()) == 0xADDE);
}

} // namespace

ArqrxLife::ArqrxLife(
    Machine& machine, int index, const arqrx::Settings& settings, const ArqrxSource& source, Sender& sender)
    : m_machine(machine),
      m_nIndex(index),
      m_settings(settings),
      m_sender(sender),
      m_receiver(settings),
      m_playOut(machine, index, settings, source),
      m_nBeganUs(machine.clock.NowUs())
{
}

void ArqrxLife::OnDatagram(const std::vector<uint8_t>& bytes, int64_t localUs)
{
    const bool isMedia = IsMedia(bytes);
    if (isMedia)
        NoteArrival(bytes);
    m_nTaken += isMedia || !IsAnswer(bytes) ? 1 : 0;
    const uint64_t strangers = m_receiver.Counted().strangers;
    m_receiver.OnDatagram(bytes, localUs);
    CheckFigures();
    if (isMedia && m_receiver.Counted().strangers != strangers) {
        m_nDisbelieved += m_receiver.Counted().strangers - strangers;
        m_playOut.OnDisbelieved();
    }
    Draw(localUs);
    if (WakeUpUs() <= localUs)
        OnTime(localUs);
}

void ArqrxLife::OnTime(int64_t localUs)
{
    const arqrx::Timer reason = m_receiver.NextWakeUp().timer;
    ++m_nWakeUps;
    m_receiver.OnTime(localUs);
    CheckFigures();
    Draw(localUs);
    const arqrx::WakeUp next = m_receiver.NextWakeUp();
    if (next.timeUs <= localUs)
        Fail(Outcome::LostLiveness,
            "receiver %d wants to be woken %" PRId64 " us ago for timer %d, just woken for timer %d",
            m_nIndex, localUs - next.timeUs, static_cast<int>(next.timer), static_cast<int>(reason));
    REQUIRE_THAT((next.timer == arqrx::Timer::None) == (next.timeUs == INT64_MAX),
        "receiver %d wants to be woken in %" PRId64 " us for timer %d", m_nIndex, next.timeUs - localUs,
        static_cast<int>(next.timer));
    CheckRestarts();
    CheckWakeUps();
}

void ArqrxLife::Leave(int64_t localUs)
{
    m_bLeaving = true;
    m_playOut.Disturb(INT64_MAX); // it asks for nothing any more
    m_receiver.Leave();
    CheckFigures();
    Draw(localUs);
    if (WakeUpUs() <= localUs)
        OnTime(localUs);
}

void ArqrxLife::Draw(int64_t localUs)
{
    while (const std::optional<arqrx::Transmit> transmit = m_receiver.NextTransmit()) {
        CheckFigures();
        NoteTransmit(*transmit);
        m_sender.Send(transmit->port, transmit->bytes);
    }
    while (const std::optional<arqrx::Packet> packet = m_receiver.NextPacket()) {
        CheckFigures();
        m_playOut.OnPlayed(*packet, localUs);
    }
    const arqrx::Figures& counted = m_receiver.Counted();
    REQUIRE_THAT(counted.played == m_playOut.Played() && counted.requests == m_nRequests
            && counted.numbersAsked == m_nNumbersAsked && counted.pings == m_nPings
            && counted.echoesSent == m_nEchoes,
        "receiver %d counts %" PRIu64 " played, %" PRIu64 " requests for %" PRIu64 ", %" PRIu64
        " pings, %" PRIu64 " echoes instead of %" PRIu64 ", %" PRIu64 " for %" PRIu64 ", %" PRIu64
        ", %" PRIu64,
        m_nIndex, counted.played, counted.requests, counted.numbersAsked, counted.pings, counted.echoesSent,
        m_playOut.Played(), m_nRequests, m_nNumbersAsked, m_nPings, m_nEchoes);
}

void ArqrxLife::NoteTransmit(const arqrx::Transmit& transmit)
{
    std::span<const uint8_t> bytes = transmit.bytes;
    const bool isLeave = bytes.size() >= 4 && Word16(bytes.data()) == 0xBEEF;
    if (transmit.port == arqrx::ProxyPort::Ping) {
        REQUIRE_THAT(m_settings.isPinging, "receiver %d pings, which it shall not", m_nIndex);
        REQUIRE_THAT(isLeave || !m_bLeaving, "receiver %d pings when it has left", m_nIndex);
        m_nPings += isLeave ? 0 : 1;
        return;
    }
    if (m_settings.streamId != 0)
        bytes = bytes.subspan(TAG_BYTES);
    if (bytes.size() < REQUEST_HEADER_BYTES)
        ++m_nEchoes;
    else
        NoteRequest(bytes);
}

void ArqrxLife::NoteRequest(std::span<const uint8_t> request)
{
    const size_t count = Word16(request.data());
    REQUIRE_THAT(m_settings.isAsking, "receiver %d asks, which it shall not", m_nIndex);
    REQUIRE_THAT(request.size() == REQUEST_HEADER_BYTES + 2 * count,
        "receiver %d asks for %zu numbers in %zu bytes", m_nIndex, count, request.size());
    ++m_nRequests;
    m_nNumbersAsked += count;
    for (size_t i = 0; i < count; ++i)
        m_playOut.OnAsked(Word16(&request[REQUEST_HEADER_BYTES + 2 * i]), HoldsOne());
}

void ArqrxLife::NoteArrival(const std::vector<uint8_t>& bytes)
{
    const auto seq = static_cast<uint16_t>(bytes[2] << 8 | bytes[3]);
    uint32_t ssrc = 0;
    std::memcpy(&ssrc, &bytes[8], sizeof(ssrc));
    const auto timestamp = static_cast<uint32_t>(bytes[4] << 24 | bytes[5] << 16 | bytes[6] << 8 | bytes[7]);
    // The source gives a number that is gone to another packet; two of these look like a source that goes back.
    const bool isResend = (bytes[1] & 0x7F) == RESENT_TYPE;
    const bool isRepeated = m_nMedia != 0 && !isResend && static_cast<int16_t>(seq - m_usLastSeq) <= 0
        && static_cast<int32_t>(timestamp - m_nLastTimestamp) > 0;
    const bool isPause = m_nMedia != 0 && NowUs() - m_nLastMediaUs > PAUSE_US;
    const bool isJump = m_nMedia != 0 && std::abs(static_cast<int16_t>(seq - m_usLastSeq)) > NEW_STREAM_JUMP;
    if (m_nMedia == 0 || isPause || isJump || isRepeated || ssrc != m_nSsrc) {
        ++m_nReasons;
        m_nLastReasonUs = NowUs();
        m_playOut.OnChange();
    }
    ++m_nMedia;
    m_nResends += isResend ? 1 : 0;
    m_nLastMediaUs = NowUs();
    m_nSsrc = ssrc;
    if (!isResend) {
        m_usLastSeq = seq;
        m_nLastTimestamp = timestamp;
    }
    m_playOut.OnArrival(seq);
}

void ArqrxLife::CheckFigures() const
{
    const arqrx::Figures& counted = m_receiver.Counted();
    REQUIRE_THAT(counted.missing == counted.recovered + counted.lost + counted.waiting,
        "receiver %d counts %" PRIu64 " missing, %" PRIu64 " recovered, %" PRIu64 " lost, %" PRIu64
        " waiting",
        m_nIndex, counted.missing, counted.recovered, counted.lost, counted.waiting);
    // One that does not go with the stream is kept until the next tells whether it is a stranger.
    const uint64_t known = counted.received + counted.strangers;
    REQUIRE_THAT(counted.received <= m_nMedia && known + 1 >= m_nTaken,
        "receiver %d counts %" PRIu64 " datagrams of media and %" PRIu64 " strangers, of %" PRIu64
        " and %" PRIu64,
        m_nIndex, counted.received, counted.strangers, m_nMedia, m_nTaken - m_nMedia);
    REQUIRE_THAT(counted.resends <= m_nResends && counted.resends + counted.strangers >= m_nResends,
        "receiver %d counts %" PRIu64 " resends and %" PRIu64 " strangers, of %" PRIu64 " resends", m_nIndex,
        counted.resends, counted.strangers, m_nResends);
}

bool ArqrxLife::HoldsOne() const
{
    const arqrx::Figures& counted = m_receiver.Counted();
    return counted.received + counted.strangers < m_nTaken;
}

void ArqrxLife::OnClockStep(int64_t byUs)
{
    ++m_nReasons;
    m_playOut.OnChange();
    const int64_t shownUs = ShownUs(byUs);
    const bool isAlone = NowUs() - m_nLastReasonUs > STEP_SEEN_US && NowUs() - m_nBeganUs > STEP_SEEN_US
        && NowUs() - m_nLastMediaUs < PAUSE_US && !m_step && std::abs(shownUs) >= CLEAR_STEP_US;
    m_step.reset();
    if (isAlone)
        m_step = ClockStep { NowUs(), m_receiver.Counted().restarts };
    else
        m_nLastReasonUs = NowUs();
}

// Each has a reason, and a step of the clock that nothing else comes near is answered by one.
void ArqrxLife::CheckRestarts()
{
    const uint64_t restarts = m_receiver.Counted().restarts;
    REQUIRE_THAT(restarts <= m_nReasons,
        "receiver %d began afresh %" PRIu64 " times, for %" PRIu64 " reasons", m_nIndex, restarts,
        m_nReasons);
    if (!m_step || NowUs() - m_step->atUs < m_settings.latencyUs + STEP_SEEN_US)
        return;
    const bool isAlone = m_nLastReasonUs < m_step->atUs && NowUs() - m_nLastMediaUs < PAUSE_US;
    const uint64_t answers = restarts - m_step->restartsBefore;
    REQUIRE_THAT(!isAlone || answers == 1,
        "receiver %d began afresh %" PRIu64 " times when the clock was set at %.6f s", m_nIndex, answers,
        static_cast<double>(m_step->atUs) / 1e6);
    m_nStepsAnswered += isAlone ? 1 : 0;
    m_step.reset();
}

void ArqrxLife::CheckWakeUps() const
{
    const arqrx::Figures& counted = m_receiver.Counted();
    const uint64_t done = counted.received + counted.missing + counted.numbersAsked + counted.pings;
    const auto seconds = static_cast<uint64_t>((NowUs() - m_nBeganUs) / SECOND + 1);
    if (m_nWakeUps > WAKE_UPS_EACH * done + WAKE_UPS_A_SECOND * seconds)
        Fail(Outcome::LostLiveness,
            "receiver %d was woken %" PRIu64 " times in %" PRIu64 " s for %" PRIu64 " things", m_nIndex,
            m_nWakeUps, seconds, done);
}

void ArqrxLife::CheckNothingMissing() const
{
    if (!HoldsOne())
        m_playOut.CheckAllPlayed();
}

void ArqrxLife::CheckSilent() const
{
    if (NowUs() - m_nLastMediaUs < m_settings.latencyUs + SECOND)
        return; // a slow pacer is still sending
    const arqrx::WakeUp next = m_receiver.NextWakeUp();
    if (next.timer != arqrx::Timer::None)
        Fail(Outcome::LostLiveness, "receiver %d has left and still waits for timer %d", m_nIndex,
            static_cast<int>(next.timer));
    const arqrx::Figures& counted = m_receiver.Counted();
    REQUIRE_THAT(counted.buffered == 0 && counted.waiting == 0,
        "receiver %d has left and still holds %" PRIu64 " packets and misses %" PRIu64, m_nIndex,
        counted.buffered, counted.waiting);
}

PlayedTotals ArqrxLife::Totals() const
{
    const arqrx::Figures& counted = m_receiver.Counted();
    return { counted.received, counted.resends, counted.played, counted.missing, counted.recovered,
        counted.lost, counted.requests, counted.numbersAsked, counted.restarts, m_nStepsAnswered,
        m_nDisbelieved, 1 };
}

} // namespace simulation
