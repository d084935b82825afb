#include "arqrx/core/keep_alive.h"

#include <algorithm>
#include <cstdint>

namespace arqrx {

namespace {

constexpr int LEAVES = 5; // one of them arrives
constexpr int64_t LONGEST_SILENCE_US = 60'000'000;
constexpr int64_t NEVER = INT64_MAX;

} // namespace

void KeepAlive::Begin(int64_t nowUs)
{
    m_nPingUs = nowUs;
    m_nHeardUs = nowUs;
    m_echoes.BeginAt(nowUs);
}

bool KeepAlive::Advance(int64_t nowUs)
{
    if (m_bLeft)
        return false;
    if (m_bStopped && nowUs >= m_nResumeUs)
        return Rejoin(nowUs);
    if (m_bStopped)
        return false;
    if (m_settings.isPinging && nowUs >= m_nPingUs)
        m_bPingDue = true;
    if (m_settings.isAsking && nowUs >= m_echoes.NextUs())
        m_bEchoDue = true;
    if (nowUs < SilentAtUs())
        return false;
    m_nLeaves = 1;
    m_nSilenceUs = std::min(2 * m_nSilenceUs, std::max(LONGEST_SILENCE_US, m_settings.silenceUs));
    return Rejoin(nowUs);
}

bool KeepAlive::Rejoin(int64_t nowUs)
{
    m_bStopped = false;
    m_nHeardUs = nowUs;
    m_bPingDue = m_settings.isPinging;
    m_nPingUs = nowUs;
    m_echoes.BeginAt(nowUs);
    m_bEchoDue = m_settings.isAsking;
    return true;
}

void KeepAlive::Hear(int64_t nowUs)
{
    m_nHeardUs = nowUs;
    m_nSilenceUs = m_settings.silenceUs;
}

void KeepAlive::Stop(int64_t nowUs)
{
    m_bStopped = true;
    m_nResumeUs = m_settings.rejoinAfterUs == 0 ? NEVER : nowUs + m_settings.rejoinAfterUs;
    m_bPingDue = false;
    m_bEchoDue = false;
    m_nLeaves = 0;
}

void KeepAlive::Leave()
{
    m_bLeft = true;
    m_bPingDue = false;
    m_bEchoDue = false;
    m_nLeaves = m_settings.isPinging ? LEAVES : 0;
}

KeepAlive::Due KeepAlive::Take(int64_t nowUs)
{
    if (m_nLeaves > 0) {
        --m_nLeaves;
        return Due::Leave;
    }
    if (m_bPingDue) {
        m_bPingDue = false;
        m_nPingUs = std::max(m_nPingUs + m_settings.pingIntervalUs, nowUs + m_settings.pingIntervalUs / 2);
        return Due::Ping;
    }
    if (m_bEchoDue) {
        m_bEchoDue = false;
        return Due::Echo;
    }
    return Due::Nothing;
}

int64_t KeepAlive::SilentAtUs() const
{
    return m_settings.isPinging && m_settings.silenceUs > 0 ? m_nHeardUs + m_nSilenceUs : NEVER;
}

WakeUp KeepAlive::First() const
{
    if (m_bLeft || !(m_settings.isPinging || m_settings.isAsking))
        return { NEVER, Timer::None };
    return { 0, m_settings.isPinging ? Timer::Ping : Timer::Echo };
}

WakeUp KeepAlive::Next() const
{
    if (m_nLeaves > 0)
        return { 0, Timer::Ping };
    if (m_bLeft)
        return { NEVER, Timer::None };
    if (m_bStopped)
        return { m_nResumeUs, m_nResumeUs == NEVER ? Timer::None : Timer::Silence };
    WakeUp next { NEVER, Timer::None };
    const auto consider = [&next](bool isWanted, int64_t timeUs, Timer timer) {
        if (isWanted && timeUs < next.timeUs)
            next = { timeUs, timer };
    };
    consider(m_settings.isPinging, m_nPingUs, Timer::Ping);
    consider(m_settings.isAsking, m_echoes.NextUs(), Timer::Echo);
    consider(true, SilentAtUs(), Timer::Silence);
    return next;
}

} // namespace arqrx
