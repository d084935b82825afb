#include "arqrx/program/media_loop.h"

#include <sys/prctl.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "arqrx/program/password_file.h"
#include "common/clock.h"

namespace arqrx {

namespace {

// A turn serves all that has come or is due meanwhile: so long the stream may be late, and so often the thread wakes
// at most, however many packets there are.
constexpr int64_t TURN_US = 500;
constexpr int64_t LOOK_AROUND_US = 100 * common::US_PER_MS;
constexpr int64_t DRAIN_GRACE_US = 500 * common::US_PER_MS; // over the latency
constexpr int64_t OUTPUT_PATIENCE_US = 2 * common::US_PER_SECOND;

void SleepUntil(int64_t timeUs)
{
    const timespec until { timeUs / common::US_PER_SECOND, timeUs % common::US_PER_SECOND * 1000 };
    (void)clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

bool OpenDecryption(const Options& options, MediaParts& parts, std::string& problem)
{
    if (options.decryptionLibrary.empty())
        return true;
    PasswordFile file;
    if (!options.passwordFile.empty() && !file.Read(options.passwordFile, problem))
        return false;
    if (file.isReadByOthers)
        parts.news.push_back("others can read the password; chmod 600 " + options.passwordFile);
    parts.decryption = DecryptionLibrary::Open(options.decryptionLibrary, file.password, problem);
    if (!parts.decryption) {
        problem = "cannot decrypt: " + problem;
        return false;
    }
    parts.news.push_back("decrypting by " + parts.decryption->Description());
    return true;
}

} // namespace

bool OpenMedia(const Options& options, MediaParts& parts, std::string& problem)
{
    if (!OpenDecryption(options, parts, problem))
        return false;
    if (!options.proxyHost.empty() && !parts.proxy.LookUp(options.proxyHost, problem)) {
        problem = "cannot find the proxy: " + problem
            + "; give its address, or see what this machine knows with: getent hosts " + options.proxyHost;
        return false;
    }
    if (!parts.sockets.Open(options, parts.proxy.Address(), problem))
        return false;
    for (const OutputAddress& address : options.outputs) {
        parts.outputs.push_back(OpenOutput(address, options, problem));
        if (!parts.outputs.back())
            return false;
    }
    return true;
}

MediaLoop::MediaLoop(const Options& options, MediaParts&& parts, SampleBoard& board)
    : m_options(options),
      m_board(board),
      m_proxy(std::move(parts.proxy)),
      m_sockets(std::move(parts.sockets)),
      m_receiver(options.settings),
      m_playOut(std::move(parts.outputs), std::move(parts.decryption)),
      m_startUs(common::NowUs()),
      m_nowUs(m_startUs)
{
}

EndReason MediaLoop::Run()
{
    (void)prctl(PR_SET_TIMERSLACK, 1); // a packet leaves when it is due, not 50 us later
    EndReason reason = EndReason::Signal;
    Turn();
    while (!IsOver(reason)) {
        Wait();
        Turn();
    }
    m_receiver.Leave();
    SendAll();
    if (m_options.isDraining)
        Drain();
    m_playOut.Finish(OUTPUT_PATIENCE_US);
    m_board.Publish(Count());
    m_board.Close();
    return reason;
}

void MediaLoop::Wait()
{
    const int64_t earliestUs = m_nowUs + TURN_US;
    if (common::NowUs() < earliestUs)
        SleepUntil(earliestUs);
    const int64_t latestUs = m_lookedAroundUs + LOOK_AROUND_US;
    m_sockets.Wait(std::min(m_receiver.NextWakeUp().timeUs, latestUs), m_board.WakeDescriptor());
}

void MediaLoop::Turn()
{
    m_sockets.Read(
        [this](std::span<const uint8_t> datagram, int64_t nowUs) { m_receiver.OnDatagram(datagram, nowUs); });
    m_nowUs = common::NowUs();
    m_receiver.OnTime(m_nowUs);
    SendAll();
    PlayAll();
    if (m_board.IsWanted())
        m_board.Publish(Count());
    if (m_nowUs - m_lookedAroundUs >= LOOK_AROUND_US)
        LookAround();
}

void MediaLoop::SendAll()
{
    while (const std::optional<Transmit> transmit = m_receiver.NextTransmit())
        m_sockets.Send(*transmit);
}

void MediaLoop::PlayAll()
{
    while (const std::optional<Packet> packet = m_receiver.NextPacket())
        m_playOut.Add(*packet, m_nowUs);
    m_playOut.Flush();
}

void MediaLoop::LookAround()
{
    m_lookedAroundUs = m_nowUs;
    const Figures& figures = m_receiver.Counted();
    if (figures.received != m_nReceived)
        m_mediaUs = m_nowUs;
    m_nReceived = figures.received;
    // It has joined anew because nothing came: the proxy's name may stand for another address now.
    if (figures.rejoins != m_nRejoins)
        m_proxy.LookUpAgain();
    m_nRejoins = figures.rejoins;
    if (m_proxy.HasMoved())
        m_sockets.SetProxy(m_proxy.Address());
    m_bNoOutputLeft = m_playOut.HasNoneLeft();
}

void MediaLoop::Drain()
{
    m_receiver.EndOfStream(m_nowUs);
    const int64_t untilUs = m_nowUs + m_options.settings.latencyUs + DRAIN_GRACE_US;
    const int stops = m_nStops.load();
    while (m_receiver.Counted().buffered > 0 && m_nowUs < untilUs && m_nStops.load() == stops) {
        SleepUntil(
            std::min(std::max(m_nowUs + TURN_US, m_receiver.NextWakeUp().timeUs), m_nowUs + LOOK_AROUND_US));
        m_nowUs = common::NowUs();
        m_receiver.OnTime(m_nowUs);
        PlayAll();
    }
}

bool MediaLoop::IsOver(EndReason& reason) const
{
    const int64_t silentSinceUs = std::max(m_mediaUs, m_startUs);
    if (m_nStops.load() > 0)
        reason = EndReason::Signal;
    else if (m_options.durationUs > 0 && m_nowUs - m_startUs >= m_options.durationUs)
        reason = EndReason::Duration;
    else if (m_options.exitAfterSilenceUs > 0 && m_nowUs - silentSinceUs >= m_options.exitAfterSilenceUs)
        reason = EndReason::Silence;
    else if (m_bNoOutputLeft)
        reason = EndReason::OutputsFailed;
    else
        return false;
    return true;
}

Sample MediaLoop::Count() const
{
    Sample sample;
    sample.runUs = m_nowUs - m_startUs;
    sample.core = m_receiver.Counted();
    if (m_mediaUs >= 0)
        sample.sinceMediaUs = m_nowUs - m_mediaUs;
    sample.socketDrops = m_sockets.Drops();
    sample.sendFailures = m_sockets.SendFailures();
    if (m_sockets.Proxy().port != 0)
        sample.proxy = common::EndpointText(m_sockets.Proxy());
    m_playOut.Count(sample);
    return sample;
}

} // namespace arqrx
