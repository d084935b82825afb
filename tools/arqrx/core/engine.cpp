#include "arqrx/core/engine.h"

#include <algorithm>

namespace arqrx {

namespace {

Settings Sane(Settings settings)
{
    settings.latencyUs = std::max<int64_t>(settings.latencyUs, 0);
    settings.pingIntervalUs = std::max<int64_t>(settings.pingIntervalUs, 1000);
    settings.holdOffUs = std::max<int64_t>(settings.holdOffUs, 1000);
    settings.rejoinAfterUs = std::max<int64_t>(settings.rejoinAfterUs, 0);
    settings.ringPackets = std::clamp<uint32_t>(settings.ringPackets, 1, NumberRing<Gap>::MOST);
    settings.mostPackets = std::clamp<uint32_t>(settings.mostPackets, 1, NumberRing<Slot>::MOST);
    return settings;
}

} // namespace

Receiver::Engine::Engine(const Settings& settings)
    : m_settings(Sane(settings)),
      m_writer(m_settings.streamId),
      m_keepAlive(m_settings),
      m_asker(m_settings, m_missing, m_tolerance, m_roundTrip),
      m_packets(m_settings.mostPackets)
{
}

void Receiver::Engine::Begin(int64_t nowUs)
{
    FreeOut();
    m_nNowUs = m_bBegun ? std::max(m_nNowUs, nowUs) : nowUs;
    if (!m_bBegun)
        m_keepAlive.Begin(m_nNowUs);
    m_bBegun = true;
}

void Receiver::Engine::OnDatagram(std::span<const uint8_t> datagram, int64_t nowUs)
{
    Begin(nowUs);
    switch (ClassifyDatagram(datagram)) {
    case DatagramKind::Media:
        OnFirstSending({ datagram, ReadMediaWords(datagram), m_nNowUs });
        break;
    case DatagramKind::Resend:
        OnResend(datagram, ReadMediaWords(datagram));
        break;
    case DatagramKind::Echo:
        OnEcho(datagram);
        break;
    case DatagramKind::Stop:
        ++m_figures.stops;
        m_keepAlive.Stop(m_nNowUs);
        break;
    case DatagramKind::Stranger:
        ++m_figures.strangers;
        break;
    }
    Advance();
}

void Receiver::Engine::OnTime(int64_t nowUs)
{
    Begin(nowUs);
    Advance();
}

void Receiver::Engine::OnEcho(std::span<const uint8_t> datagram)
{
    const int64_t tookUs = m_keepAlive.Echoes().Back(ReadEchoData(datagram), m_nNowUs);
    if (tookUs < 0)
        return; // a double, or from before our time
    ++m_figures.echoesBack;
    m_roundTrip.Add(tookUs);
    m_keepAlive.Hear(m_nNowUs);
}

void Receiver::Engine::Advance()
{
    Release();
    m_asker.Advance(m_newest, MayAsk(), m_nNowUs, m_figures);
    if (m_keepAlive.Advance(m_nNowUs)) {
        ++m_figures.rejoins;
        m_nJoinedUs = m_nNowUs;
    }
}

void Receiver::Engine::Leave()
{
    m_keepAlive.Leave();
}

std::optional<Transmit> Receiver::Engine::NextTransmit()
{
    switch (m_keepAlive.Take(m_nNowUs)) {
    case KeepAlive::Due::Leave:
        return Transmit { ProxyPort::Ping, m_writer.Leave() };
    case KeepAlive::Due::Ping:
        ++m_figures.pings;
        return Transmit { ProxyPort::Ping, m_writer.Ping() };
    case KeepAlive::Due::Echo:
        ++m_figures.echoesSent;
        return Transmit { ProxyPort::Request, m_writer.Echo(m_keepAlive.Echoes().Send(m_nNowUs)) };
    case KeepAlive::Due::Nothing:
        break;
    }
    if (!MayAsk())
        return std::nullopt;
    const std::span<const uint16_t> numbers = m_asker.TakeRequest(m_newest, m_nNowUs);
    if (numbers.empty())
        return std::nullopt;
    ++m_figures.requests;
    m_figures.numbersAsked += numbers.size();
    m_mostAsked.Add(static_cast<uint32_t>(numbers.size()), m_nNowUs);
    return Transmit { ProxyPort::Request, m_writer.Request(numbers, m_asker.Window()) };
}

WakeUp Receiver::Engine::NextWakeUp() const
{
    if (!m_bBegun)
        return m_keepAlive.First();
    WakeUp next = m_keepAlive.Next();
    const int64_t askUs = MayAsk() && m_asker.HasDue() ? m_nNowUs : m_asker.NextUs(m_nNowUs);
    if (askUs < next.timeUs)
        next = { askUs, Timer::Request };
    if (m_nHere != NONE && NextDueUs() < next.timeUs)
        next = { NextDueUs(), Timer::PlayOut };
    return next;
}

const Figures& Receiver::Engine::Counted()
{
    ReadGauges();
    return m_figures;
}

} // namespace arqrx
