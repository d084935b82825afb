#include "arqctl/core/meter.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

namespace arqctl {

namespace {

constexpr uint64_t MOST_LOST_A_PACKET
    = 32767; // a larger step in 16-bit numbers is a step back, which is no loss
constexpr uint64_t MOST_TOGETHER = 64; // two threads at 32 input packets each may be sending

// A difference of RECV_LOSS that the interval's packets cannot have brought is no step forward over 2^32. The figures
// are not read in one moment: one packet more may have been counted.
bool IsLossBack(const Statistics& before, const Statistics& now)
{
    if (now.receivedLoss >= before.receivedLoss)
        return false;
    const uint32_t step = now.receivedLoss - before.receivedLoss; // wraps on purpose
    const uint64_t packets = now.receivedPackets - before.receivedPackets + 1;
    constexpr uint32_t LARGEST_STEP = 1U << 28;
    return step > LARGEST_STEP || (step - 1) / MOST_LOST_A_PACKET >= packets;
}

bool IsInputBack(const Statistics& before, const Statistics& now)
{
    return now.receivedPackets < before.receivedPackets || IsLossBack(before, now);
}

bool IsOutputBack(const Statistics& before, const Statistics& now)
{
    return now.sentPackets < before.sentPackets;
}

// What was counted since: all of it after a reset.
Totals Growth(const Statistics& before, const Statistics& now)
{
    const bool isInputBack = IsInputBack(before, now);
    Totals growth;
    growth.received = now.receivedPackets - (isInputBack ? 0 : before.receivedPackets);
    growth.lost = isInputBack ? now.receivedLoss : now.receivedLoss - before.receivedLoss; // wraps on purpose
    growth.sent = now.sentPackets - (IsOutputBack(before, now) ? 0 : before.sentPackets);
    return growth;
}

void AddTo(Totals& totals, const Totals& growth)
{
    totals.received += growth.received;
    totals.lost += growth.lost;
    totals.sent += growth.sent;
}

Rates RatesOf(const Totals& before, const Totals& now, int64_t elapsedUs)
{
    const auto aSecond = [elapsedUs](uint64_t earlier, uint64_t later) {
        return static_cast<double>(later - earlier) * 1e6 / static_cast<double>(elapsedUs);
    };
    return { aSecond(before.received, now.received), aSecond(before.lost, now.lost),
        aSecond(before.sent, now.sent), aSecond(before.sentBeyond, now.sentBeyond),
        aSecond(before.withheld, now.withheld) };
}

// To how many receivers each packet of an interval went.
struct FanOut {
    uint64_t least = 0;
    uint64_t most = 0;
};

FanOut OfLists(std::vector<std::string> before, std::vector<std::string> now)
{
    std::sort(before.begin(), before.end());
    std::sort(now.begin(), now.end());
    std::vector<std::string> both;
    std::set_intersection(before.begin(), before.end(), now.begin(), now.end(), std::back_inserter(both));
    return { both.size(), before.size() + now.size() - both.size() };
}

uint64_t CappedProduct(uint64_t a, uint64_t b)
{
    constexpr uint64_t MOST = std::numeric_limits<uint64_t>::max();
    return b != 0 && a > MOST / b ? MOST : a * b;
}

} // namespace

void Meter::Take(const Statistics& statistics, int64_t nowUs, int peerPid, int fanOut)
{
    if (!m_reading.hasBeenUp)
        Begin(statistics, nowUs);
    else if (IsAnotherProcess(statistics, peerPid))
        Restart(statistics, nowUs);
    else
        Compare(statistics, nowUs, fanOut);
    m_reading.isUp = true;
    m_reading.isInputGone = nowUs - m_reading.inputChangedUs >= INPUT_GONE_US;
    m_reading.statistics = statistics;
    m_reading.atUs = nowUs;
    m_nFanOut = fanOut;
    if (peerPid != 0)
        m_nPeerPid = peerPid;
}

void Meter::Miss(int64_t /*nowUs*/)
{
    m_reading.isUp = false;
    m_reading.isInputGone = false;
    m_reading.rates = {};
}

bool Meter::IsAnotherProcess(const Statistics& statistics, int peerPid) const
{
    if (peerPid != 0 && m_nPeerPid != 0)
        return peerPid != m_nPeerPid;
    const Statistics& before = m_reading.statistics;
    const bool isLossBack = statistics.receivedLoss < before.receivedLoss || before.receivedLoss == 0;
    return !m_reading.isUp && statistics.receivedPackets < before.receivedPackets
        && statistics.sentPackets < before.sentPackets && isLossBack;
}

void Meter::Begin(const Statistics& statistics, int64_t nowUs)
{
    m_reading.hasBeenUp = true;
    m_reading.inputChangedUs = nowUs;
    AddTo(m_reading.totals, Growth({}, statistics));
}

// How long the new process has run is not known, nor who received meanwhile: no rates and no estimate.
void Meter::Restart(const Statistics& statistics, int64_t nowUs)
{
    ++m_reading.totals.restarts;
    AddTo(m_reading.totals, Growth({}, statistics));
    m_reading.rates = {};
    m_reading.inputChangedUs = nowUs;
    m_reading.hasHadInput = m_reading.hasHadInput || statistics.receivedPackets > 0;
    m_shortfall.Forget();
}

void Meter::Compare(const Statistics& statistics, int64_t nowUs, int fanOut)
{
    const Statistics& before = m_reading.statistics;
    const Totals totalsBefore = m_reading.totals;
    const Totals growth = Growth(before, statistics);
    AddTo(m_reading.totals, growth);
    if (IsInputBack(before, statistics) || IsOutputBack(before, statistics))
        ++m_reading.totals.resets;
    Estimate(statistics, growth, fanOut);
    LookAtInput(growth.received, nowUs);
    if (nowUs > m_reading.atUs)
        m_reading.rates = RatesOf(totalsBefore, m_reading.totals, nowUs - m_reading.atUs);
}

void Meter::Estimate(const Statistics& statistics, const Totals& growth, int fanOut)
{
    const Statistics& before = m_reading.statistics;
    const bool isInputBack = IsInputBack(before, statistics);
    if (isInputBack != IsOutputBack(before, statistics))
        return m_shortfall.Forget(); // the two counts are of different times
    if (isInputBack)
        m_shortfall.Forget();
    FanOut each = OfLists(before.receivers, statistics.receivers);
    if (fanOut >= 0) {
        const auto now = static_cast<uint64_t>(fanOut);
        const uint64_t then = m_nFanOut >= 0 ? static_cast<uint64_t>(m_nFanOut) : now;
        each = { std::min(then, now), std::max(then, now) };
    }
    const Shortfall::Settled settled
        = m_shortfall.Take(growth.sent, CappedProduct(growth.received, each.least),
            CappedProduct(growth.received, each.most), MOST_TOGETHER * each.most);
    m_reading.totals.sentBeyond += settled.beyond;
    m_reading.totals.withheld += settled.withheld;
}

void Meter::LookAtInput(uint64_t received, int64_t nowUs)
{
    if (received == 0)
        return;
    m_reading.hasHadInput = true;
    m_reading.inputChangedUs = nowUs;
}

} // namespace arqctl
