#include "arqctl/core/receiver_table.h"

#include <algorithm>
#include <iterator>
#include <set>

#include "common/endpoint.h"

namespace arqctl {

namespace {

// A receiver that is silent for so long and reports again from another port was started again.
constexpr int64_t PAUSE_US = 2'500'000;
// No receiver counts so many packets between two reports: the count has jumped.
constexpr uint64_t MOST_AT_ONCE = 1'000'000'000;
constexpr double US_PER_S = 1e6;

uint64_t Since(uint64_t before, uint64_t now)
{
    const uint64_t more = now >= before ? now - before : now; // it went back: it began again at 0
    return more <= MOST_AT_ONCE ? more : 0;
}

// It was sent before one that is here already, and is no sign of a restart: the receiver that sent it ran then.
bool IsStale(const ReceiverReport& before, const ReceiverReport& now, int64_t ageUs)
{
    return now.runS < before.runS && now.runS > static_cast<double>(ageUs) / US_PER_S + 1;
}

// `name` if it is free, else with the address, else with a number behind it.
std::string UniqueLabel(const std::string& name, const std::string& address, std::set<std::string>& taken)
{
    if (taken.insert(name).second)
        return name;
    const std::string named = name + "@" + address;
    for (int number = 1;; ++number) {
        std::string label = number == 1 ? named : named + "#" + std::to_string(number);
        if (taken.insert(label).second)
            return label;
    }
}

} // namespace

const char* NameOf(ReporterState state)
{
    switch (state) {
    case ReporterState::Live:
        return "live";
    case ReporterState::Gone:
        return "gone";
    case ReporterState::Ended:
        return "ended";
    }
    return "";
}

ReporterState ReceiverTable::Reporter::State(int64_t nowUs) const
{
    if (report.isFinal)
        return ReporterState::Ended;
    return nowUs - lastUs < SILENCE_US ? ReporterState::Live : ReporterState::Gone;
}

bool ReceiverTable::Reporter::IsOver(int64_t nowUs) const
{
    return nowUs - lastUs >= (report.isFinal ? ENDED_KEPT_US : GONE_KEPT_US);
}

bool ReceiverTable::Take(const ReceiverReport& report, uint32_t address, uint16_t port, int64_t nowUs)
{
    const Key key { address, report.channel, report.name, port };
    auto place = Find(key, nowUs);
    if (place == m_reporters.end()) {
        if (m_reporters.size() >= MOST && !MakeRoom(nowUs))
            return false;
        place = m_reporters.emplace(key, Reporter {}).first;
        place->second.order = m_nOrder++;
        place->second.report = report; // what it counted before is not ours to add up
    }
    Reporter& reporter = place->second;
    if (IsStale(reporter.report, report, nowUs - reporter.lastUs))
        return true;
    if (report.runS < reporter.report.runS)
        ++reporter.restarts;
    reporter.channel = ChannelOf(key, reporter.channel);
    Count(reporter.report, report, reporter.channel);
    reporter.report = report;
    reporter.lastUs = nowUs;
    return true;
}

// The receiver itself, or the same one before its restart, which has the new port from now on.
ReceiverTable::Reporters::iterator ReceiverTable::Find(const Key& key, int64_t nowUs)
{
    const auto place = m_reporters.find(key);
    if (place != m_reporters.end())
        return place;
    const auto twin = TwinOf(key, nowUs - PAUSE_US);
    if (twin == m_reporters.end())
        return twin;
    Reporter reporter = std::move(twin->second);
    m_reporters.erase(twin);
    return m_reporters.emplace(key, std::move(reporter)).first;
}

// The same receiver at another port, with its last report at or before `youngestUs`, or ended.
ReceiverTable::Reporters::iterator ReceiverTable::TwinOf(const Key& key, int64_t youngestUs)
{
    Key first = key;
    first.port = 0;
    for (auto place = m_reporters.lower_bound(first);
         place != m_reporters.end() && key.IsTwinOf(place->first); ++place) {
        if (place->first.port != key.port
            && (place->second.lastUs <= youngestUs || place->second.report.isFinal))
            return place;
    }
    return m_reporters.end();
}

// Forgets the one that has been silent longest.
bool ReceiverTable::MakeRoom(int64_t nowUs)
{
    const auto oldest = std::min_element(m_reporters.begin(), m_reporters.end(),
        [](const auto& a, const auto& b) { return a.second.lastUs < b.second.lastUs; });
    const auto ended = std::find_if(
        m_reporters.begin(), m_reporters.end(), [](const auto& one) { return one.second.report.isFinal; });
    if (oldest->second.State(nowUs) != ReporterState::Live)
        m_reporters.erase(oldest);
    else if (ended != m_reporters.end())
        m_reporters.erase(ended);
    else
        return false;
    return true;
}

void ReceiverTable::Count(const ReceiverReport& before, const ReceiverReport& now, const std::string& channel)
{
    const auto place = m_totals.find(channel);
    if (place == m_totals.end())
        return;
    ReportTotals& totals = place->second;
    totals.received += Since(before.received, now.received);
    totals.missing += Since(before.missing, now.missing);
    totals.recovered += Since(before.recovered, now.recovered);
    totals.lost += Since(before.lost, now.lost);
}

std::string ReceiverTable::ChannelOf(const Key& key, const std::string& otherwise) const
{
    if (!key.channel.empty())
        return key.channel;
    const auto place = m_channels.find(key.address);
    return place == m_channels.end() ? otherwise : place->second;
}

void ReceiverTable::Assign(const std::vector<ChannelReceivers>& lists, int64_t nowUs)
{
    m_channels.clear();
    std::map<std::string, ReportTotals> totals;
    for (const ChannelReceivers& list : lists) {
        totals[list.channel] = TotalsOf(list.channel);
        for (const std::string& text : list.addresses) {
            uint32_t address = 0;
            if (common::ParseAddress(text, address))
                m_channels.emplace(address, list.channel); // the first one stays
        }
    }
    m_totals = std::move(totals);
    for (auto& [key, reporter] : m_reporters)
        reporter.channel = ChannelOf(key, reporter.channel);
    Forget(nowUs);
}

void ReceiverTable::Forget(int64_t nowUs)
{
    std::erase_if(m_reporters, [nowUs](const auto& one) { return one.second.IsOver(nowUs); });
    // One that was started again so quickly that both stood side by side: it is not missed.
    for (auto place = m_reporters.begin(); place != m_reporters.end();) {
        const auto next = std::next(place);
        const bool isBefore = next != m_reporters.end() && place->first.IsTwinOf(next->first);
        const bool isBehind = place != m_reporters.begin() && place->first.IsTwinOf(std::prev(place)->first);
        if ((isBefore || isBehind) && place->second.State(nowUs) != ReporterState::Live)
            m_reporters.erase(place);
        place = next;
    }
}

std::vector<ReporterView> ReceiverTable::Of(const std::string& channel, int64_t nowUs) const
{
    std::vector<std::pair<uint64_t, Reporters::const_iterator>> members;
    for (auto place = m_reporters.begin(); place != m_reporters.end(); ++place) {
        if (place->second.channel == channel)
            members.emplace_back(place->second.order, place);
    }
    std::sort(members.begin(), members.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<ReporterView> views;
    std::set<std::string> taken;
    for (const auto& [order, place] : members) {
        const Reporter& reporter = place->second;
        const std::string address = common::AddressText(place->first.address);
        const std::string& name = reporter.report.name.empty() ? address : reporter.report.name;
        views.push_back({ &reporter.report, UniqueLabel(name, address, taken), address, reporter.State(nowUs),
            nowUs - reporter.lastUs, reporter.restarts });
    }
    return views;
}

std::vector<std::string> ReceiverTable::Channels() const
{
    std::set<std::string> channels;
    for (const auto& [key, reporter] : m_reporters)
        channels.insert(reporter.channel);
    return { channels.begin(), channels.end() };
}

ReportTotals ReceiverTable::TotalsOf(const std::string& channel) const
{
    const auto place = m_totals.find(channel);
    return place == m_totals.end() ? ReportTotals {} : place->second;
}

} // namespace arqctl
