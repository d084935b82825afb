#include "demo/station.h"

#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "common/clock.h"
#include "demo/media.h"

namespace demo {

namespace {

constexpr uint64_t FIRST_SEED = 2; // the same on both sides
constexpr uint64_t AGAIN_SEED = 3;
constexpr uint64_t UP_SEED = 5;
constexpr std::array<uint8_t, 8> KNOCK { 0x00, 0x00, 0xAD, 0xE2, 'd', 'e', 'm', 'o' };
constexpr int BUFFER_BYTES = 4 << 20;

arqrx::Settings SettingsOf(Side side, int64_t latencyUs)
{
    arqrx::Settings settings;
    settings.isAsking = side == Side::A;
    settings.latencyUs = latencyUs;
    return settings;
}

} // namespace

Station::Path::Path(uint64_t seed, const std::string& script, bool isDown, arqlink::PacketStore& store)
    : line(seed, {}, store),
      m_bDown(isDown)
{
    std::string problem;
    (void)m_script.Parse(script, problem); // the demo's own text; a unit test parses it
    Advance(0);
}

void Station::Path::Advance(int64_t elapsedUs)
{
    if (m_script.Advance(elapsedUs, m_settings[0], m_settings[1]))
        line.Configure(m_settings[m_bDown ? 0 : 1]);
}

Station::Station(Side side, const std::string& script, int64_t latencyUs, Ledger& ledger, PlayedOut played)
    : m_side(side),
      m_ledger(ledger),
      m_played(std::move(played)),
      m_first(FIRST_SEED, script, true, m_store),
      m_again(AGAIN_SEED, script, true, m_store),
      m_up(UP_SEED, script, false, m_store),
      m_receiver(SettingsOf(side, latencyUs))
{
}

bool Station::Open(uint32_t address, const common::Endpoint& pingPort, const common::Endpoint& requestPort)
{
    m_proxy = { pingPort, requestPort };
    if (!m_socket.Open() || !m_socket.Bind({ address, 0 }))
        return false;
    m_socket.SetBuffers(BUFFER_BYTES, BUFFER_BYTES);
    return true;
}

void Station::OnReadable(int64_t nowUs)
{
    for (int count; (count = m_reader.Read(m_socket.Fd())) > 0;)
        for (int index = 0; index < count; ++index)
            Take(m_reader.Data(index), nowUs);
}

void Station::Knock()
{
    SendTo(arqrx::ProxyPort::Request, KNOCK);
}

void Station::SendTo(arqrx::ProxyPort port, std::span<const uint8_t> bytes)
{
    const sockaddr_in to = common::ToSockaddr(m_proxy[static_cast<size_t>(port)]);
    (void)sendto(
        m_socket.Fd(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
}

// The first sendings' line changes by the time at which the source sent, which is the same on both sides.
void Station::Take(std::span<const uint8_t> datagram, int64_t nowUs)
{
    if (std::ranges::equal(datagram, KNOCK)) {
        m_bAnswered = true;
        return;
    }
    const bool isMedia = IsMedia(datagram), isFirst = isMedia && !IsAgain(datagram);
    Path& path = isFirst ? m_first : m_again;
    path.Advance(isFirst ? m_ledger.SendTime(datagram) : Elapsed(nowUs));
    const bool passed = path.line.Push(datagram, nowUs).outcome == arqlink::Outcome::Passed;
    if (isMedia)
        m_ledger.OnFromProxy(m_side, datagram, passed);
}

void Station::OnTime(int64_t nowUs)
{
    Deliver(m_first, nowUs);
    Deliver(m_again, nowUs);
    m_receiver.OnTime(nowUs);
    DrawTransmits(nowUs);
    SendOn(nowUs);
    DrawPackets();
}

void Station::Deliver(Path& path, int64_t nowUs)
{
    while (path.line.PopDue(nowUs, m_delivery)) {
        if (IsMedia(m_delivery.bytes))
            m_ledger.OnDelivered(m_side, m_delivery.bytes, nowUs);
        m_receiver.OnDatagram(m_delivery.bytes, nowUs);
        DrawTransmits(nowUs);
        DrawPackets();
    }
}

void Station::DrawTransmits(int64_t nowUs)
{
    while (const auto transmit = m_receiver.NextTransmit()) {
        m_up.Advance(Elapsed(nowUs));
        const bool passed
            = m_up.line.Push(transmit->bytes, nowUs, static_cast<uint64_t>(transmit->port)).outcome
            == arqlink::Outcome::Passed;
        if (transmit->port == arqrx::ProxyPort::Request)
            m_ledger.OnRequest(m_side, transmit->bytes, passed);
    }
}

void Station::SendOn(int64_t nowUs)
{
    while (m_up.line.PopDue(nowUs, m_delivery))
        SendTo(static_cast<arqrx::ProxyPort>(m_delivery.cookie), m_delivery.bytes);
}

void Station::DrawPackets()
{
    while (const auto packet = m_receiver.NextPacket()) {
        m_ledger.OnPlayed(m_side, packet->datagram);
        m_played(m_side, packet->datagram);
    }
}

int64_t Station::NextWakeUs() const
{
    return std::min({ m_first.line.NextWakeUs(), m_again.line.NextWakeUs(), m_up.line.NextWakeUs(),
        m_receiver.NextWakeUp().timeUs });
}

void Station::Leave(int64_t nowUs)
{
    m_receiver.Leave();
    m_receiver.OnTime(nowUs);
    while (const auto transmit = m_receiver.NextTransmit())
        SendTo(transmit->port, transmit->bytes);
}

} // namespace demo
