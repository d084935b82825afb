#include "arqctl/core/loss_watch.h"

namespace arqctl {

namespace {

constexpr int64_t NO_INPUT_AFTER_US = 3'000'000;
// One might be a counting error of the proxy, whose counts are shared without a lock.
constexpr uint64_t BURSTS_FOR_ON = 2;
// Where receivers fetch at once what is withheld, not every burst is seen: so many must have been due before "off".
constexpr uint64_t PERIODS_FOR_OFF = 8;
constexpr uint64_t PERIODS_FOR_OFF_AT_LAST = 2;
constexpr uint64_t MOST_BETWEEN = 1'000'000'000; // answers with more between them are not of one proxy

// A step back of the input is more than MOST_BETWEEN, the difference wraps.
bool IsOutputReset(const Statistics& before, const Statistics& now)
{
    return now.sentPackets < before.sentPackets;
}

} // namespace

void LossWatch::See(const Statistics& statistics, int64_t nowUs)
{
    if (m_inputUs < 0 || statistics.receivedPackets != m_nSeen)
        m_inputUs = nowUs;
    m_nSeen = statistics.receivedPackets;
}

void LossWatch::TakeAtRest(const Statistics& statistics, int fanOut)
{
    const int each = fanOut >= 0 ? fanOut : static_cast<int>(statistics.receivers.size());
    const bool isComparable = each == m_nEach && statistics.receivers == m_before.receivers
        && !IsOutputReset(m_before, statistics);
    const uint64_t packets = statistics.receivedPackets - m_before.receivedPackets;
    const uint64_t sent = statistics.sentPackets - m_before.sentPackets;
    m_before = statistics;
    m_nEach = each;
    m_isFanOutKnown = fanOut >= 0 || each < 2;
    if (!isComparable || packets > MOST_BETWEEN)
        return;
    m_nPackets += packets;
    m_nSent += sent;
    const uint64_t due = packets * static_cast<uint64_t>(each);
    if (sent >= due)
        return;
    ++m_nBursts;
    m_nWithheld += (due - sent - 1) / static_cast<uint64_t>(each) + 1;
}

LossFinding LossWatch::Judge(int64_t nowUs, bool isLast) const
{
    LossFinding finding { .packets = m_nPackets, .withheld = m_nWithheld };
    const bool isOn = m_nBursts >= BURSTS_FOR_ON;
    const bool isOff = m_nBursts == 0 && m_nEach > 0
        && m_nPackets >= m_nPeriod * (isLast ? PERIODS_FOR_OFF_AT_LAST : PERIODS_FOR_OFF);
    if (isOn && !m_isFanOutKnown && m_nSent <= m_nPackets)
        finding.doubt = LossDoubt::MayBeGroup;
    else if (isOn || isOff)
        finding = { isOn ? LossState::On : LossState::Off, LossDoubt::None, m_nPackets, m_nWithheld };
    else
        finding.doubt = Doubt(nowUs, isLast);
    return finding;
}

LossDoubt LossWatch::Doubt(int64_t nowUs, bool isLast) const
{
    if (m_nEach == 0)
        return LossDoubt::NoReceiver;
    if (m_inputUs >= 0 && nowUs - m_inputUs >= NO_INPUT_AFTER_US)
        return LossDoubt::NoInput;
    if (!isLast)
        return LossDoubt::None;
    const bool isRestRare = m_nEach < 0 || (m_nPackets == 0 && m_nSeen != m_before.receivedPackets);
    return isRestRare ? LossDoubt::Busy : LossDoubt::TooFew;
}

} // namespace arqctl
