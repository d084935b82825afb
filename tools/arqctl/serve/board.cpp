#include "arqctl/serve/board.h"

#include <algorithm>
#include <limits>

#include "arqctl/serve/receiver_report.h"
#include "common/clock.h"

namespace arqctl {

namespace {

// An answer a second is asked for; one that was late still stands for a second.
constexpr int64_t FRESH_US = 2'500'000;
// The loop may come late and leave a second out.
constexpr int64_t MOST_FILLED = 3;

float& At(HistorySample& sample, Curve curve)
{
    return sample[static_cast<size_t>(curve)];
}

// Counts are told by their growth since the last known second, so that each lost packet is in the history once.
void AddGrowth(HistorySample& sample, const Channel& channel, int64_t second)
{
    const auto seconds = static_cast<float>(std::max<int64_t>(second - channel.secondBefore, 1));
    const Totals& now = channel.watched.reading.totals;
    const Totals& before = channel.totalsBefore;
    At(sample, Curve::Lost) = static_cast<float>(now.lost - before.lost) / seconds;
    At(sample, Curve::SentBeyond) = static_cast<float>(now.sentBeyond - before.sentBeyond) / seconds;
    At(sample, Curve::Withheld) = static_cast<float>(now.withheld - before.withheld) / seconds;
}

// Known as long as a receiver of the channel reports.
void AddReported(HistorySample& sample, const Channel& channel, const ReceiverTable& reports, int64_t second,
    int64_t nowUs)
{
    const std::vector<ReporterView> reporters = reports.Of(channel.watched.id, nowUs);
    const bool isKnown = std::any_of(reporters.begin(), reporters.end(),
        [](const ReporterView& one) { return one.state == ReporterState::Live; });
    if (!isKnown || channel.secondBefore < 0)
        return;
    const auto seconds = static_cast<float>(std::max<int64_t>(second - channel.secondBefore, 1));
    const ReportTotals now = reports.TotalsOf(channel.watched.id);
    const ReportTotals& before = channel.reportedBefore;
    At(sample, Curve::ReportedMissing) = static_cast<float>(now.missing - before.missing) / seconds;
    At(sample, Curve::ReportedRecovered) = static_cast<float>(now.recovered - before.recovered) / seconds;
    At(sample, Curve::ReportedLost) = static_cast<float>(now.lost - before.lost) / seconds;
}

HistorySample SampleOf(const Channel& channel, int64_t second)
{
    HistorySample sample = UnknownSample();
    const Reading& reading = channel.watched.reading;
    At(sample, Curve::InputBitRate) = static_cast<float>(reading.statistics.receivedBitRate);
    At(sample, Curve::OutputBitRate) = static_cast<float>(reading.statistics.sentBitRate);
    At(sample, Curve::InputPackets) = static_cast<float>(reading.rates.inputPackets);
    At(sample, Curve::Receivers) = static_cast<float>(reading.statistics.receivers.size());
    if (channel.secondBefore >= 0)
        AddGrowth(sample, channel, second);
    return sample;
}

void AddToHistory(Channel& channel, const ReceiverTable& reports, int64_t nowUs)
{
    const int64_t second = nowUs / common::US_PER_SECOND;
    const Reading& reading = channel.watched.reading;
    const bool isKnown = reading.isUp && nowUs - reading.atUs <= FRESH_US;
    channel.isAfterGap |= !isKnown;
    if (!isKnown || second == channel.secondBefore)
        return;
    HistorySample sample = SampleOf(channel, second);
    AddReported(sample, channel, reports, second, nowUs);
    const bool isLate = !channel.isAfterGap && second - channel.secondBefore <= MOST_FILLED;
    for (int64_t filled = isLate ? channel.secondBefore + 1 : second; filled <= second; filled++)
        channel.history.Add(filled, sample);
    channel.secondBefore = second;
    channel.isAfterGap = false;
    channel.totalsBefore = reading.totals;
    channel.reportedBefore = reports.TotalsOf(channel.watched.id);
}

} // namespace

void Board::Take(const WatchedChannels& seen, int64_t nowUs)
{
    for (const WatchedChannel& one : seen) {
        Channel& channel = Shown(one, nowUs);
        channel.watched = one;
        const bool wasAsked = one.reading.hasBeenUp || one.failures > 0;
        if (!wasAsked)
            continue;
        channel.alarm.Take(one.reading, nowUs);
        channel.loss.Take(one.reading.totals, nowUs);
        if (one.reading.isUp)
            channel.receivers.Take(one.reading.statistics.receivers, nowUs);
        AddToHistory(channel, m_reports, nowUs);
    }
    AssignReports(nowUs);
}

void Board::AssignReports(int64_t nowUs)
{
    std::vector<ChannelReceivers> lists;
    for (const auto& channel : m_channels)
        lists.push_back({ channel->watched.id, channel->watched.reading.statistics.receivers });
    m_reports.Assign(lists, nowUs);
}

void Board::TakeReport(std::string_view datagram, const common::Endpoint& source, int64_t nowUs)
{
    ReceiverReport report;
    std::string problem; // nobody to tell: strangers could fill any log
    if (ParseReceiverReport(datagram, report, problem))
        (void)m_reports.Take(report, source.address, source.port, nowUs);
}

Channel& Board::Shown(const WatchedChannel& seen, int64_t nowUs)
{
    if (Channel* const channel = Find(seen.id))
        return *channel;
    const auto name = m_names.find(seen.id);
    m_channels.push_back(
        std::make_unique<Channel>(seen, name == m_names.end() ? seen.id : name->second, nowUs));
    return *m_channels.back();
}

Channel* Board::Find(const std::string& id) const
{
    for (const auto& channel : m_channels) {
        if (channel->watched.id == id)
            return channel.get();
    }
    return nullptr;
}

bool Board::IsFresh(std::string& reason) const
{
    for (const auto& channel : m_channels) {
        if (channel->watched.reading.isUp)
            return true;
        reason = channel->watched.problem.empty() ? "no answer yet" : channel->watched.problem;
    }
    if (m_channels.empty())
        reason = "no proxy was found";
    return false;
}

} // namespace arqctl
