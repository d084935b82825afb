#include "arqlink/core/line.h"

#include <algorithm>
#include <utility>

namespace arqlink {

namespace {

constexpr int64_t NS_PER_US = 1000;
constexpr int64_t LONGEST_QUEUE_US = 3600LL * 1'000'000; // however slow the line and large the queue
constexpr uint64_t MOST_CHANGED_BYTES = 4;

} // namespace

const char* OutcomeName(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Passed:
        return "passed";
    case Outcome::Blackout:
        return "blackout";
    case Outcome::Sequence:
        return "sequence";
    case Outcome::Burst:
        return "burst";
    case Outcome::Random:
        return "random";
    case Outcome::Queue:
        return "queue";
    case Outcome::Memory:
        return "memory";
    }
    return "";
}

Line::Line(uint64_t seed, const Settings& settings, PacketStore& store)
    : m_store(store),
      m_loss(seed, Purpose::Loss),
      m_burstMove(seed, Purpose::BurstMove),
      m_burstLoss(seed, Purpose::BurstLoss),
      m_jitter(seed, Purpose::Jitter),
      m_copyJitter(seed, Purpose::CopyJitter),
      m_stepAside(seed, Purpose::StepAside),
      m_duplicate(seed, Purpose::Duplicate),
      m_corrupt(seed, Purpose::Corrupt)
{
    Configure(settings);
}

Line::~Line()
{
    for (const Waiting& waiting : m_waiting)
        m_store.Leave(waiting.delivery.bytes);
}

void Line::Configure(const Settings& settings)
{
    m_settings = settings;
    m_sequences.Configure(settings.dropped);
    if (!settings.burst.IsOn())
        m_bBad = false;
}

Fate Line::Push(std::span<const uint8_t> bytes, int64_t nowUs, uint64_t cookie)
{
    Fate fate;
    fate.number = m_ulPackets++;
    m_counts.came++;
    m_counts.cameBytes += bytes.size();
    fate.delayUs = m_settings.delayUs + m_jitter.UpTo(fate.number, m_settings.jitterUs);
    fate.copyDelayUs = m_settings.delayUs + m_copyJitter.UpTo(fate.number, m_settings.jitterUs);
    fate.bCorrupted = m_corrupt.Chance(fate.number, m_settings.corrupt) && !bytes.empty();
    fate.bDuplicated = m_duplicate.Chance(fate.number, m_settings.duplicate);
    fate.outcome = Judge(bytes, fate.number);
    int64_t sentUs = nowUs;
    if (fate.outcome == Outcome::Passed && !Transmit(bytes.size(), nowUs, sentUs))
        fate.outcome = Outcome::Queue;
    if (fate.outcome == Outcome::Passed && !Send(bytes, sentUs + fate.delayUs, fate, cookie, false))
        fate.outcome = Outcome::Memory;
    Count(fate);
    if (fate.outcome == Outcome::Passed && fate.bDuplicated
        && !Send(bytes, sentUs + fate.copyDelayUs, fate, cookie, true))
        m_counts.memory++;
    return fate;
}

// Every draw is made for every packet, so that none depends on what another setting has done to it.
Outcome Line::Judge(std::span<const uint8_t> bytes, uint64_t number)
{
    const bool bBurst = BurstTakes(number);
    if (m_settings.blackout)
        return Outcome::Blackout;
    if (m_sequences.Drop(bytes))
        return Outcome::Sequence;
    if (bBurst)
        return Outcome::Burst;
    return m_loss.Chance(number, m_settings.loss) ? Outcome::Random : Outcome::Passed;
}

bool Line::BurstTakes(uint64_t number)
{
    const Burst& burst = m_settings.burst;
    if (!burst.IsOn())
        return false;
    if (m_burstMove.Chance(number, m_bBad ? burst.leave : burst.enter))
        m_bBad = !m_bBad;
    return m_burstLoss.Chance(number, m_bBad ? burst.lossBad : burst.lossGood);
}

// When the last bit has gone onto a line with a limited rate. False: the queue before it is full.
bool Line::Transmit(size_t sizeBytes, int64_t nowUs, int64_t& sentUs)
{
    if (m_settings.rateBits <= 0)
        return true;
    const int64_t nowNs = nowUs * NS_PER_US;
    const int64_t waitNs = std::max<int64_t>(m_nFreeAtNs - nowNs, 0);
    const auto rate = static_cast<double>(m_settings.rateBits);
    const double waitBytes = static_cast<double>(waitNs) * rate / 8e9;
    const bool bFull = m_settings.queueBytes > 0 ? waitNs > 0
            && waitBytes + static_cast<double>(sizeBytes) > static_cast<double>(m_settings.queueBytes)
                                                 : waitNs > m_settings.queueUs * NS_PER_US;
    if (bFull || waitNs > LONGEST_QUEUE_US * NS_PER_US)
        return false;
    m_nFreeAtNs = nowNs + waitNs + static_cast<int64_t>(static_cast<double>(sizeBytes) * 8e9 / rate);
    sentUs = m_nFreeAtNs / NS_PER_US;
    return true;
}

bool Line::Send(
    std::span<const uint8_t> bytes, int64_t leaveUs, const Fate& fate, uint64_t cookie, bool bCopy)
{
    Waiting waiting;
    if (!m_store.Take(bytes, waiting.delivery.bytes))
        return false;
    if (fate.bCorrupted)
        Corrupt(waiting.delivery.bytes, fate.number);
    waiting.delivery.cookie = cookie;
    waiting.delivery.number = fate.number;
    waiting.delivery.bCopy = bCopy;
    waiting.delivery.dueUs = InOrder(leaveUs, fate.number);
    waiting.serial = m_ulSerial++;
    m_waiting.push_back(std::move(waiting));
    std::push_heap(m_waiting.begin(), m_waiting.end(), LeavesLater);
    return true;
}

// A packet that steps aside neither waits for those before it nor holds up those behind it.
int64_t Line::InOrder(int64_t dueUs, uint64_t number)
{
    if (m_stepAside.Chance(number, m_settings.reorder))
        return dueUs;
    m_nLastDueUs = std::max(m_nLastDueUs, dueUs);
    return m_nLastDueUs;
}

void Line::Count(const Fate& fate)
{
    uint64_t* const losses[] = { nullptr, &m_counts.blackout, &m_counts.sequence, &m_counts.burst,
        &m_counts.random, &m_counts.queue, &m_counts.memory };
    if (fate.outcome != Outcome::Passed) {
        ++*losses[static_cast<size_t>(fate.outcome)];
        return;
    }
    m_counts.duplicated += fate.bDuplicated ? 1 : 0;
    m_counts.corrupted += fate.bCorrupted ? 1 : 0;
}

// Neighbouring bytes, none of them twice, each to another value.
void Line::Corrupt(std::vector<uint8_t>& bytes, uint64_t number) const
{
    uint64_t draw = m_corrupt.At(number);
    const uint64_t count = 1 + Mix(draw) % std::min<uint64_t>(MOST_CHANGED_BYTES, bytes.size());
    const uint64_t first = Mix(draw + 1) % bytes.size();
    for (uint64_t i = 0; i < count; i++) {
        const uint64_t change = Mix(draw + 2 + i);
        bytes[(first + i) % bytes.size()] ^= static_cast<uint8_t>(1 + change % 255);
    }
}

bool Line::PopDue(int64_t nowUs, Delivery& delivery)
{
    if (NextWakeUs() > nowUs)
        return false;
    std::pop_heap(m_waiting.begin(), m_waiting.end(), LeavesLater);
    m_store.Recycle(delivery.bytes);
    delivery = std::move(m_waiting.back().delivery);
    m_store.Leave(delivery.bytes);
    m_waiting.pop_back();
    m_counts.delivered++;
    m_counts.deliveredBytes += delivery.bytes.size();
    if (!delivery.bCopy && delivery.number < m_ulBehind)
        m_counts.reordered++;
    m_ulBehind = std::max(m_ulBehind, delivery.number + 1);
    return true;
}

bool Line::LeavesLater(const Waiting& a, const Waiting& b)
{
    if (a.delivery.dueUs != b.delivery.dueUs)
        return a.delivery.dueUs > b.delivery.dueUs;
    return a.serial > b.serial;
}

} // namespace arqlink
