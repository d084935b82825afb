#include "simulation/model_receiver.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "simulation/failure.h"
#include "simulation/time_units.h"

namespace simulation {

namespace {

constexpr int ASKS = 6; // for one number, then it is given up
constexpr int64_t LONGEST_RECOVERY_US = 3 * SECOND; // all asks for a number and some time
// Numbers of one request. Who would miss more takes a new stream to have begun.
constexpr int LONGEST_LIST = 700;
constexpr uint32_t SMALLEST_BUDGET_BYTES = 26000;

void PutHost16(std::vector<uint8_t>& bytes, uint32_t value)
{
    uint8_t raw[2];
    const auto word = static_cast<uint16_t>(value);
    std::memcpy(raw, &word, sizeof(raw));
    bytes.insert(bytes.end(), raw, raw + sizeof(raw));
}

// A prefix with an ID behind it, if there is one.
std::vector<uint8_t> Tag(uint32_t magic, uint32_t streamId)
{
    std::vector<uint8_t> bytes(streamId != 0 ? 8 : 4);
    std::memcpy(bytes.data(), &magic, 4);
    if (streamId != 0)
        std::memcpy(bytes.data() + 4, &streamId, 4);
    return bytes;
}

} // namespace

ModelReceiver::ModelReceiver(
    Machine& machine, const Config& config, const ReceiverIdentity& identity, Network& network)
    : m_machine(machine),
      m_config(config),
      m_identity(identity),
      m_network(network),
      m_random(config.seed, Purpose::Receiver, static_cast<uint32_t>(identity.index)),
      m_nPingUs(m_random.Between(300 * MS, 4500 * MS)),
      m_nAskUs(m_random.Between(105 * MS, 350 * MS))
{
    DrawWindow();
}

// Long enough for the packets that tell of a gap to come, and for some of them at once.
void ModelReceiver::DrawWindow()
{
    m_usRetries = static_cast<uint16_t>(m_random.Between(5, 8));
    m_usIntervalMs = static_cast<uint16_t>(m_random.Between(100, 400));
    int64_t extraMs = std::min<int64_t>(40000, 3 * m_config.packetGapUs / MS) + 1500;
    while (EngineModel::BudgetBytes(
               m_usRetries, m_usIntervalMs, static_cast<uint32_t>(extraMs), m_config.grossMediaBitrate)
        < SMALLEST_BUDGET_BYTES)
        ++extraMs;
    m_usExtraMs = static_cast<uint16_t>(extraMs);
}

void ModelReceiver::Start()
{
    At(m_random.Between(0, 2 * SECOND), PING);
    At(m_random.Between(0, SECOND), LOOK);
}

void ModelReceiver::At(int64_t inUs, Timer timer)
{
    m_machine.queue.Put(m_machine.clock.NowUs() + inUs, *this, timer);
}

void ModelReceiver::OnEvent(uint64_t argument)
{
    switch (static_cast<Timer>(argument)) {
    case PING:
        Ping();
        break;
    case ASK:
        Ask();
        break;
    case LOOK:
        LookAtItself();
        break;
    }
}

// Who was configured needs no pings and sends some all the same.
void ModelReceiver::Ping()
{
    if (m_bSilent)
        return;
    At(m_nPingUs + (m_bCalm ? 0 : m_random.Between(0, 300 * MS)), PING);
    if (m_machine.clock.NowUs() >= m_nSilentUntilUs)
        SendPing();
}

void ModelReceiver::SendPing()
{
    const uint32_t magic = m_random.Chance(500) ? 0xBABEFACE : 0xCEFABEBA;
    const std::vector<uint8_t> plain { 'p', 'i', 'n', 'g' };
    m_network.SendUp(m_identity.index, Port(), DEST_PORT,
        m_identity.streamId != 0 ? Tag(magic, m_identity.streamId) : plain);
}

void ModelReceiver::LookAtItself()
{
    if (m_bCalm)
        return;
    const bool isLong = m_config.kind == Config::Kind::Sparse || m_config.kind == Config::Kind::Days;
    At(isLong ? 15 * SECOND : SECOND, LOOK);
    if (m_random.Chance(m_config.silentPermille))
        m_nSilentUntilUs = m_machine.clock.NowUs() + m_random.Between(2 * SECOND, 25 * SECOND);
    if (m_random.Chance(m_config.movePermille))
        ++m_nMoves;
    if (m_random.Chance(m_config.leavePermille))
        m_network.SendUp(m_identity.index, Port(), DEST_PORT,
            Tag(m_random.Chance(500) ? 0xDEADBEEF : 0xEFBEADDE, m_identity.streamId));
    if (m_random.Chance(m_config.greedyPermille))
        AskForAnything();
    if (m_random.Chance(m_config.noisePermille))
        MakeNoise();
}

void ModelReceiver::AskForAnything()
{
    std::vector<uint16_t> seqs;
    const int64_t count = m_random.Between(1, m_random.Chance(100) ? LONGEST_LIST : 30);
    const int64_t reach = m_random.Chance(300) ? 2 * m_config.ringSize : 30;
    auto seq = static_cast<uint16_t>(m_usNewest - m_random.Between(0, reach));
    while (static_cast<int64_t>(seqs.size()) < count) {
        seqs.push_back(seq);
        if (!m_random.Chance(150)) // otherwise twice
            seq = static_cast<uint16_t>(seq + m_random.Between(1, m_random.Chance(50) ? reach : 2));
    }
    const uint16_t retries = m_usRetries;
    const uint16_t extraMs = m_usExtraMs;
    if (m_random.Chance(500)) { // a window that is hardly one
        m_usRetries = static_cast<uint16_t>(m_random.Between(0, 2));
        m_usExtraMs = static_cast<uint16_t>(m_random.Between(0, 300));
    }
    SendRequest(seqs, true);
    m_usRetries = retries;
    m_usExtraMs = extraMs;
}

void ModelReceiver::MakeNoise()
{
    switch (m_random.Between(0, 3)) {
    case 0:
        SendRequest({ m_usNewest, 1 }, false);
        break;
    case 1: // too short for anything, or a ping with another number
        SendTagged(REQUEST_PORT, { 0, 0, 0xE2, 0xAD, 1 });
        break;
    case 2:
        SendTagged(REQUEST_PORT, { 1, 2, 3 });
        break;
    default:
        SendTagged(REQUEST_PORT, { 0, 0, 0xAD, 0xE2, static_cast<uint8_t>(m_random.Next()), 7, 8, 9 });
        break;
    }
}

void ModelReceiver::OnArrival(const Delivery& delivery)
{
    const bool isAtPort = delivery.portNet == htons(DEST_PORT) || delivery.portNet == htons(Port());
    if (!isAtPort) // it has moved meanwhile
        return;
    if (delivery.kind != Delivery::Kind::Media && delivery.kind != Delivery::Kind::Resend)
        return;
    const auto ahead = static_cast<int16_t>(delivery.seq - m_usNewest);
    const auto misses = static_cast<int>(m_missing.size());
    if (!m_bHasNewest || ahead + misses > LONGEST_LIST || ahead < -2 * LONGEST_LIST) {
        m_missing.clear();
        m_usNewest = delivery.seq;
        m_bHasNewest = true;
        return;
    }
    if (ahead > 0) {
        NoticeGap(delivery.seq);
        return;
    }
    const auto found = std::find_if(m_missing.begin(), m_missing.end(),
        [&delivery](const Missing& missing) { return missing.seq == delivery.seq; });
    if (found == m_missing.end())
        return;
    ++m_nRecovered;
    m_missing.erase(found);
}

void ModelReceiver::NoticeGap(uint16_t seq)
{
    for (uint16_t next = m_usNewest + 1; next != seq; ++next)
        m_missing.push_back({ next, m_machine.clock.NowUs() });
    m_usNewest = seq;
    if (m_missing.empty() || m_bAsking)
        return;
    m_bAsking = true;
    At(m_bCalm ? 20 * MS : m_random.Between(0, 60 * MS), ASK);
}

void ModelReceiver::Ask()
{
    m_bAsking = false;
    std::vector<uint16_t> seqs;
    for (size_t i = 0; i < m_missing.size();) {
        Missing& missing = m_missing[i];
        if (missing.asks >= ASKS) {
            GiveUp(missing);
            m_missing.erase(m_missing.begin() + static_cast<std::ptrdiff_t>(i));
            continue;
        }
        ++missing.asks;
        missing.calmAsks += m_bCalm ? 1 : 0;
        seqs.push_back(missing.seq);
        ++i;
    }
    if (seqs.empty())
        return;
    SendRequest(seqs, true);
    m_bAsking = true;
    At(std::max(m_nAskUs, 2 * m_config.delayUs + 10 * MS), ASK);
}

// In the calm every request is heard and every answer arrives: who has asked and got nothing was refused.
void ModelReceiver::GiveUp(const Missing& missing) const
{
    if (missing.calmAsks < ASKS || !missing.isAnswered)
        return;
    const bool isRefused = missing.verdict == EngineModel::Verdict::NotInBuffer
        || missing.verdict == EngineModel::Verdict::Reused
        || missing.verdict == EngineModel::Verdict::Expired;
    // A wall clock that was set back holds off what was sent again before that.
    const bool isHeldOff = m_config.clockSteps != 0 && missing.verdict == EngineModel::Verdict::HeldOff;
    if (!isRefused && !isHeldOff)
        Fail(Outcome::LostLiveness,
            "receiver %d asked for number %d %d times and got it neither nor a reason", m_identity.index,
            missing.seq, missing.asks);
}

void ModelReceiver::TellVerdict(uint16_t seq, EngineModel::Verdict verdict)
{
    for (Missing& missing : m_missing) {
        if (missing.seq != seq)
            continue;
        missing.verdict = verdict;
        missing.isAnswered = true;
        if (verdict != EngineModel::Verdict::OverBudget)
            continue;
        missing.asks = std::max(0, missing.asks - 1); // it was not its turn: it is asked for again
        missing.calmAsks = std::max(0, missing.calmAsks - 1);
    }
}

// The ping tells where it is now: it may have moved, and media go to where it pinged last.
void ModelReceiver::BeginCalm()
{
    m_bCalm = true;
    m_nSilentUntilUs = 0;
    SendPing();
}

void ModelReceiver::CheckNothingMissing() const
{
    for (const Missing& missing : m_missing) {
        if (m_machine.clock.NowUs() - missing.sinceUs > LONGEST_RECOVERY_US)
            Fail(Outcome::LostLiveness,
                "receiver %d still misses %zu numbers after the calm, number %d among them", m_identity.index,
                m_missing.size(), missing.seq);
    }
}

void ModelReceiver::SendRequest(const std::vector<uint16_t>& seqs, bool isRight)
{
    uint32_t sum = 0;
    for (const uint16_t seq : seqs)
        sum += seq;
    std::vector<uint8_t> bytes;
    PutHost16(bytes, static_cast<uint32_t>(seqs.size()));
    PutHost16(bytes, 0U - sum + (isRight ? 0 : 1));
    PutHost16(bytes, m_usRetries);
    PutHost16(bytes, m_usIntervalMs);
    PutHost16(bytes, m_usExtraMs);
    for (const uint16_t seq : seqs)
        PutHost16(bytes, seq);
    SendTagged(REQUEST_PORT, bytes);
}

void ModelReceiver::SendTagged(uint16_t port, const std::vector<uint8_t>& bytes)
{
    std::vector<uint8_t> datagram;
    if (m_identity.streamId != 0)
        datagram = Tag(0xBABEFACE, m_identity.streamId);
    datagram.insert(datagram.end(), bytes.begin(), bytes.end());
    m_network.SendUp(m_identity.index, Port(), port, std::move(datagram));
}

} // namespace simulation
