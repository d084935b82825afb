#include "simulation/arqrx_receiver.h"
#include "simulation/time_units.h"

#include <arpa/inet.h>

#include <algorithm>

namespace simulation {

namespace {

// And a few packets more: more than any latency and way, and than two packets take to prove another source.
constexpr int64_t SOURCE_KEPT_US = 15 * SECOND;

} // namespace

bool HasArqrx()
{
    return true;
}

std::unique_ptr<SimulatedReceiver> MakeArqrxReceiver(
    Machine& machine, const Config& config, const ReceiverIdentity& identity, Network& network)
{
    return std::make_unique<ArqrxReceiver>(machine, config, identity, network);
}

ArqrxReceiver::ArqrxReceiver(
    Machine& machine, const Config& config, const ReceiverIdentity& identity, Network& network)
    : m_machine(machine),
      m_config(config),
      m_identity(identity),
      m_network(network),
      m_random(config.seed, Purpose::Receiver, static_cast<uint32_t>(identity.index)),
      m_source(SOURCE_KEPT_US + 40 * config.packetGapUs),
      m_nLocalStartUs(m_random.Between(0, int64_t { 1 } << 50)),
      m_nDriftPpm(m_random.Between(-100, 100))
{
    DrawSettings();
}

void ArqrxReceiver::DrawSettings()
{
    m_settings.streamId = m_identity.streamId;
    m_settings.ringPackets = static_cast<uint32_t>(m_config.ringSize);
    m_settings.proxyBitRate = static_cast<uint32_t>(m_config.grossMediaBitrate);
    if (m_config.arqrxLatencyUs != 0) {
        m_settings.latencyUs = m_config.arqrxLatencyUs;
        return;
    }
    const bool isSparse = m_config.packetGapUs >= SECOND;
    m_settings.isPinging = !m_identity.configured || m_random.Chance(500);
    m_settings.isAsking = !m_random.Chance(50);
    m_settings.latencyUs = m_random.Between(300 * MS, 2 * SECOND);
    m_settings.pingIntervalUs
        = isSparse ? m_random.Between(2 * SECOND, 4500 * MS) : m_random.Between(300 * MS, 2 * SECOND);
    m_settings.silenceUs = m_random.Between(1500 * MS, 4 * SECOND);
    m_settings.rejoinAfterUs = m_random.Between(SECOND, 2 * SECOND);
}

void ArqrxReceiver::Start()
{
    At(m_random.Between(0, 2 * SECOND), BEGIN);
    At(m_random.Between(0, SECOND), LOOK);
}

void ArqrxReceiver::At(int64_t inUs, Timer timer)
{
    m_machine.queue.Put(NowUs() + inUs, *this, timer);
}

void ArqrxReceiver::OnEvent(uint64_t argument)
{
    switch (static_cast<Timer>(argument)) {
    case BEGIN:
        Begin();
        break;
    case WAKE:
        Wake();
        break;
    case LOOK:
        LookAtItself();
        break;
    }
}

void ArqrxReceiver::Begin()
{
    if (m_life || m_bSilent)
        return;
    ArqrxLife::Sender& sender = *this;
    m_machine.Note(Happened::Begins, static_cast<uint64_t>(m_identity.index));
    m_life = std::make_unique<ArqrxLife>(m_machine, m_identity.index, m_settings, m_source, sender);
    if (m_bCalm)
        m_life->PlayOut().BeginCalm();
    m_life->OnTime(LocalUs(NowUs()));
    AskForWakeUp();
}

void ArqrxReceiver::End(bool isLeaving)
{
    if (!m_life)
        return;
    m_machine.Note(Happened::Ends, static_cast<uint64_t>(m_identity.index), isLeaving ? 1 : 0);
    if (isLeaving)
        m_life->Leave(LocalUs(NowUs()));
    m_before.Add(m_life->Totals());
    m_life.reset();
}

void ArqrxReceiver::AskForWakeUp()
{
    const int64_t wantedUs = m_life->WakeUpUs();
    if (wantedUs == INT64_MAX)
        return;
    int64_t atUs = std::max(NowUs(), (wantedUs - m_nLocalStartUs) * SECOND / (SECOND + m_nDriftPpm) - 2);
    while (LocalUs(atUs) < wantedUs)
        ++atUs;
    if (atUs >= m_nWakeAtUs)
        return;
    m_nWakeAtUs = atUs;
    m_machine.queue.Put(atUs, *this, WAKE);
}

// Events that an earlier one has overtaken come all the same.
void ArqrxReceiver::Wake()
{
    if (NowUs() < m_nWakeAtUs)
        return;
    m_nWakeAtUs = INT64_MAX;
    if (!m_life)
        return;
    if (LocalUs(NowUs()) >= m_life->WakeUpUs())
        m_life->OnTime(LocalUs(NowUs()));
    AskForWakeUp();
}

void ArqrxReceiver::Send(arqrx::ProxyPort port, std::span<const uint8_t> bytes)
{
    if (!IsCutOff())
        m_network.SendUp(m_identity.index, Port(), port == arqrx::ProxyPort::Ping ? DEST_PORT : REQUEST_PORT,
            { bytes.begin(), bytes.end() });
}

void ArqrxReceiver::OnArrival(const Delivery& delivery)
{
    const bool isAtPort = delivery.portNet == htons(DEST_PORT) || delivery.portNet == htons(Port());
    if (!m_life || !isAtPort || IsCutOff())
        return;
    if (delivery.kind == Delivery::Kind::Stop)
        Disturb(NowUs() + m_settings.rejoinAfterUs);
    m_life->OnDatagram(delivery.bytes, LocalUs(NowUs()));
    AskForWakeUp();
}

void ArqrxReceiver::LookAtItself()
{
    if (m_bCalm)
        return;
    At(m_config.packetGapUs >= SECOND ? 15 * SECOND : SECOND, LOOK);
    if (m_random.Chance(m_config.silentPermille)) {
        m_nCutOffUntilUs = NowUs() + m_random.Between(100 * MS, 25 * SECOND);
        Disturb(m_nCutOffUntilUs);
        m_machine.Note(Happened::CutOff, static_cast<uint64_t>(m_identity.index),
            static_cast<uint64_t>(m_nCutOffUntilUs));
    }
    if (m_random.Chance(m_config.movePermille)) {
        ++m_nMoves;
        Disturb(NowUs());
    }
    if (m_random.Chance(m_config.leavePermille)) {
        End(m_random.Chance(500));
        At(m_random.Between(0, 8 * SECOND), BEGIN);
    }
    if (m_life && m_random.Chance(m_config.noisePermille))
        MakeNoise();
}

// No media, no echo and no stop message: whatever else a stranger may send.
void ArqrxReceiver::MakeNoise()
{
    std::vector<uint8_t> bytes(static_cast<size_t>(m_random.Between(0, 40)));
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(m_random.Next());
    if (!bytes.empty())
        bytes[0] = static_cast<uint8_t>(m_random.Between(1, 0x3F)); // RTP begins with 0x80 at least
    m_life->OnDatagram(bytes, LocalUs(NowUs()));
    AskForWakeUp();
}

void ArqrxReceiver::BeginCalm()
{
    m_bCalm = true;
    m_nCutOffUntilUs = 0;
    Begin();
    m_life->PlayOut().BeginCalm();
}

// The proxy knows where it is when it has pinged, and it joins anew when it has noticed a silence.
void ArqrxReceiver::Disturb(int64_t untilUs)
{
    if (m_life)
        m_life->PlayOut().Disturb(
            untilUs + std::max(m_settings.silenceUs, m_settings.pingIntervalUs) + m_settings.pingIntervalUs);
}

void ArqrxReceiver::TellVerdict(uint16_t seq, EngineModel::Verdict verdict)
{
    if (m_life)
        m_life->PlayOut().OnVerdict(seq, verdict);
}

void ArqrxReceiver::TellSource(uint16_t seq, const std::vector<uint8_t>& bytes)
{
    m_source.Add(seq, bytes, NowUs());
}

void ArqrxReceiver::OnClockStep(int64_t byUs)
{
    if (m_life)
        m_life->OnClockStep(byUs);
}

void ArqrxReceiver::CheckNothingMissing() const
{
    m_life->CheckNothingMissing();
}

// Half of them say that they leave, the others are gone.
void ArqrxReceiver::FallSilent()
{
    m_bSilent = true;
    if (m_random.Chance(500))
        End(false);
    else
        m_life->Leave(LocalUs(NowUs()));
}

void ArqrxReceiver::CheckSilent() const
{
    if (m_life)
        m_life->CheckSilent();
}

PlayedTotals ArqrxReceiver::Played() const
{
    PlayedTotals totals = m_before;
    if (m_life)
        totals.Add(m_life->Totals());
    return totals;
}

} // namespace simulation
