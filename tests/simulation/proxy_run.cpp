#include "simulation/proxy_run.h"

#include <arpa/inet.h>

#include <cinttypes>
#include <cstring>
#include <vector>

#include "arq/arq_settings.h"
#include "base/most_together.h"
#include "pacing/c_pacer.h"
#include "replicator/arq_send_replicator.h"
#include "simulation/failure.h"
#include "simulation/time_units.h"

namespace simulation {

namespace {

constexpr int32_t PACER_PERIOD_MS = 10;
constexpr int32_t RTP_HEADER_BYTES = 12;
constexpr size_t SSRC_AT = 8;
constexpr uint8_t PAYLOAD_TYPES[] = { 0x21, 0xA1 }; // without and with the marker

uint64_t NumberIn(const PacketBuffer& packet)
{
    uint64_t input = 0;
    std::memcpy(&input, packet.userWords, sizeof(input));
    return input;
}

std::string ListOf(const std::vector<ReceiverIdentity>& receivers)
{
    std::string list;
    for (const ReceiverIdentity& receiver : receivers) {
        char text[INET_ADDRSTRLEN] = "";
        const in_addr address { receiver.addressNet };
        (void)inet_ntop(AF_INET, &address, text, sizeof(text));
        if (receiver.configured)
            list += (list.empty() ? "" : ",") + std::string(text);
    }
    return list;
}

} // namespace

void ProxyRun::WatchedSend::TakeFromModel(const PacketBuffer& packet)
{
    uint64_t wanted = 0;
    REQUIRE_THAT(m_run.m_pacerModel->TakeNext(&wanted), "the pacer sends what it was not given");
    REQUIRE_THAT(NumberIn(packet) == wanted, "the pacer sends input %" PRIu64 " instead of %" PRIu64,
        NumberIn(packet), wanted);
    if (m_run.m_bOverflows)
        m_run.m_bOverflows = false;
    else
        ++m_run.m_nSentByTick;
}

bool ProxyRun::WatchedSend::Send(PacketBuffer* packet)
{
    TakeFromModel(*packet);
    m_run.m_checker.BeginInput(&packet, 1);
    const bool isSent = PacerCB::Send(packet);
    m_run.m_checker.EndInput();
    return isSent;
}

void ProxyRun::WatchedSend::SendTogether(PacketBuffer* const* packets, int32_t count)
{
    REQUIRE_THAT(count <= MOST_TOGETHER, "%d packets leave the pacer together", count);
    for (int32_t i = 0; i < count; ++i)
        TakeFromModel(*packets[i]);
    m_run.m_checker.BeginInput(packets, count);
    PacerCB::SendTogether(packets, count);
    m_run.m_checker.EndInput();
}

int ProxyRun::WatchedPacer::OnTimer()
{
    const int64_t wanted = m_run.m_pacerModel->Tick();
    m_run.m_nSentByTick = 0;
    ++m_run.m_nTicks;
    const int result = CPacer::OnTimer();
    if (wanted != 0)
        m_run.m_machine.Note(Happened::Tick, static_cast<uint64_t>(wanted));
    REQUIRE_THAT(m_run.m_nSentByTick == wanted, "a tick releases %" PRId64 " packets instead of %" PRId64,
        m_run.m_nSentByTick, wanted);
    return result;
}

ProxyRun::ProxyRun(
    Machine& machine, const Config& config, Checker& checker, const std::vector<ReceiverIdentity>& receivers)
    : m_machine(machine),
      m_config(config),
      m_checker(checker),
      m_random(config.seed, Purpose::Input),
      m_destinations(ListOf(receivers)),
      m_usNextSeq(config.firstSeq)
{
}

void ProxyRun::Start()
{
    m_nFiber = m_machine.fibers.Start(Main, this);
}

void ProxyRun::Main(void* run)
{
    auto* self = static_cast<ProxyRun*>(run);
    self->Build();
    self->Deliver();
    (void)self->m_machine.fibers.Wait(self->m_config.EndUs() + 1 - self->m_machine.clock.NowUs());
    self->TakeDown();
}

void ProxyRun::Build()
{
    g_nArqBufferCount = m_config.ringSize;
    const ArqSendReplicator::Settings settings {
        .arqRequestPort = REQUEST_PORT,
        .destPort = DEST_PORT,
        .destAddress = m_destinations.c_str(),
        .udpInputMode = m_config.udpInputMode,
        .grossMediaBitrate = m_config.grossMediaBitrate,
    };
    const int firstFiber = m_machine.fibers.Count();
    bool ok = false;
    m_pReplicator = std::make_unique<ArqSendReplicator>(ok, settings);
    REQUIRE_THAT(ok, "the replicator does not start");
    m_checker.Attach(*m_pReplicator, firstFiber);
    if (m_config.pacingBitRate != 0)
        CreatePacer();
}

// As Proxy does it.
void ProxyRun::CreatePacer()
{
    bool ok = true;
    m_pPacerCB = std::make_unique<WatchedSend>(*this, m_pReplicator.get());
    m_pPacerCB->m_pPacer = std::make_unique<WatchedPacer>(*this, ok, m_pPacerCB.get(), PACER_PERIOD_MS);
    REQUIRE_THAT(ok, "there is no pacer");
    const int32_t freeBytes = m_config.udpInputMode ? 0 : RTP_HEADER_BYTES;
    m_pPacerCB->m_pPacer->SetPacingRate(static_cast<uint32_t>(m_config.pacingBitRate));
    m_pPacerCB->m_pPacer->SetHeaderBytes(freeBytes);
    m_pacerModel.emplace(m_config.pacingBitRate, freeBytes);
    m_nPacerStartUs = m_machine.clock.WallUs();
    (void)m_pPacerCB->m_pPacer->Start();
}

void ProxyRun::Deliver()
{
    int64_t count = 1;
    while (m_machine.clock.NowUs() < m_config.InputEndUs()) {
        (void)m_machine.fibers.Wait(NextGapUs(count));
        count = BurstLength();
        HandIn(count);
    }
}

// So long behind the last `packets` of them the next ones come.
int64_t ProxyRun::NextGapUs(int64_t packets)
{
    if (m_config.packetGapUs >= SECOND)
        packets = 1;
    const int64_t gapUs = packets * m_random.Between(m_config.packetGapUs / 2, m_config.packetGapUs * 3 / 2);
    return m_bFaults && m_random.Chance(m_config.stopsPermille) ? gapUs + m_random.Between(0, 3 * SECOND)
                                                                : gapUs;
}

int64_t ProxyRun::BurstLength()
{
    return m_bFaults && m_random.Chance(m_config.burstPermille) ? m_random.Between(2, m_config.longestBurst)
                                                                : 1;
}

void ProxyRun::HandIn(int64_t count)
{
    std::vector<PacketBuffer*> packets;
    for (int64_t i = 0; i < count; ++i)
        packets.push_back(FillPacket());
    if (m_pPacerCB) {
        for (PacketBuffer* packet : packets)
            Submit(packet);
        return;
    }
    const auto together = static_cast<int32_t>(count);
    m_checker.BeginInput(packets.data(), together);
    (void)m_pReplicator->SendPackets(packets.data(), together);
    m_checker.EndInput();
}

void ProxyRun::Submit(PacketBuffer* packet)
{
    m_bOverflows = m_pacerModel->Submit(NumberIn(*packet), packet->Length());
    REQUIRE_THAT(m_pPacerCB->m_pPacer->Submit(packet), "the pacer takes no packet");
    REQUIRE_THAT(!m_bOverflows, "the pacer overflows and sends nothing");
}

int32_t ProxyRun::PayloadBytes()
{
    if (m_nPayloadBytes == 0 || !m_random.Chance(m_config.equalPermille))
        m_nPayloadBytes
            = static_cast<int32_t>(m_random.Between(m_config.smallestPayload, m_config.largestPayload));
    return m_nPayloadBytes;
}

PacketBuffer* ProxyRun::FillPacket()
{
    PacketBuffer* packet = m_pReplicator->PacketPool().get();
    const uint64_t input = m_checker.Inputs();
    std::memcpy(packet->userWords, &input, sizeof(input));
    const int32_t payload = PayloadBytes();
    const int32_t header = m_config.udpInputMode ? 0 : RTP_HEADER_BYTES;
    uint8_t* bytes = packet->Data();
    Random filler(input + m_config.seed);
    for (int32_t at = 0; at < header + payload; at += 8) {
        const uint64_t word = filler.Next();
        std::memcpy(
            bytes + at, &word, sizeof(word)); // the last one reaches beyond the end, not beyond the slice
    }
    uint16_t seq = 0;
    if (!m_config.udpInputMode) {
        seq = NextSeq();
        const uint8_t start[] = { 0x80, PAYLOAD_TYPES[m_random.Between(0, 1)], static_cast<uint8_t>(seq >> 8),
            static_cast<uint8_t>(seq) };
        std::memcpy(bytes, start, sizeof(start));
        std::memcpy(bytes + SSRC_AT, &m_config.seed, sizeof(uint32_t)); // one source
    }
    packet->SetLength(header + payload);
    m_checker.OnFilled(*packet, seq);
    return packet;
}

uint16_t ProxyRun::NextSeq()
{
    if (m_bFaults && m_random.Chance(m_config.inputRepeatPermille))
        return static_cast<uint16_t>(m_usNextSeq - m_random.Between(1, 4));
    if (m_bFaults && m_random.Chance(m_config.inputLossPermille))
        m_usNextSeq = static_cast<uint16_t>(m_usNextSeq + m_random.Between(1, 20));
    return m_usNextSeq++;
}

void ProxyRun::CheckPacer() const
{
    if (!m_pacerModel)
        return;
    const int64_t dueTicks = (m_machine.clock.WallUs() - m_nPacerStartUs) / (PACER_PERIOD_MS * 1000);
    const bool isSteady = m_config.clockSteps == 0;
    if (isSteady && (m_nTicks < dueTicks - 3 || m_nTicks > dueTicks + 1))
        Fail(Outcome::LostLiveness, "the pacer ticked %" PRId64 " times instead of %" PRId64, m_nTicks,
            dueTicks);
}

// The pacer's ticks end, then all threads do, within a bounded time.
void ProxyRun::TakeDown()
{
    constexpr int64_t LONGEST_STOP_US = 2 * SECOND;
    const int64_t beganUs = m_machine.clock.NowUs();
    if (m_pPacerCB)
        m_pPacerCB->m_pPacer.reset();
    m_checker.Detach();
    m_pReplicator.reset();
    m_pPacerCB.reset();
    if (m_machine.clock.NowUs() - beganUs > LONGEST_STOP_US)
        Fail(Outcome::LostLiveness, "the end takes %.3f s",
            static_cast<double>(m_machine.clock.NowUs() - beganUs) / 1e6);
}

} // namespace simulation
