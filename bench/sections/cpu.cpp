#include <cstdio>
#include <map>
#include <utility>

#include "bench.h"
#include "entries.h"
#include "field.h"

namespace {

using Condition = std::pair<int, int32_t>; // burst, receivers

struct Bounds {
    double configured; // streams of -a
    double learnt;
};

const std::map<Condition, Bounds>& AllBounds()
{
    static const std::map<Condition, Bounds> s_bounds {
        { { 1, 1 }, { 1.7, 1.8 } },
        { { 1, 10 }, { 1.12, 1.15 } },
        { { 1, 50 }, { 0.88, 0.88 } },
        { { 32, 10 }, { 0.32, 0.32 } },
        { { 32, 50 }, { 0.24, 0.24 } },
    };
    return s_bounds;
}

std::string FeedName(int burst)
{
    return burst == 1 ? "evenly" : "bursts of " + std::to_string(burst);
}

std::vector<Entry> Contenders(const Settings& settings, const Condition& condition)
{
    std::vector<Entry> entries { BareLoop() };
    const auto add
        = [&](const std::vector<Entry>& more) { entries.insert(entries.end(), more.begin(), more.end()); };
    add(Proxies(settings));
    if (settings.floors) {
        add({ Floor("floor: two threads, plain", {}),
            Floor("floor: two threads, connected", { "--send", "connected" }),
            Floor("floor: two threads, sendmmsg", { "--send", "together" }),
            Floor("floor: trains", { "--train", "32", "--receive", "many" }),
            Floor(
                "floor: trains, connected", { "--train", "32", "--receive", "many", "--send", "connected" }),
            Floor(
                "floor: trains, sendmmsg", { "--train", "32", "--receive", "many", "--send", "together" }) });
    }
    if (settings.peers)
        add(Peers(condition.second));
    return entries;
}

void AddTargets(Bench& bench, Field& field, const std::vector<Entry>& entries, const Condition& condition)
{
    const auto bounds = AllBounds().find(condition);
    if (bounds == AllBounds().end())
        return;
    for (size_t i = 0; i < entries.size(); ++i) {
        const bool isLearnt = entries[i].kind == Entry::Kind::LEARNT;
        if (!isLearnt && entries[i].kind != Entry::Kind::PROXY)
            continue;
        bench.targets.Add("CPU, " + FeedName(condition.first) + ", N=" + std::to_string(condition.second)
                + ", " + entries[i].name,
            Targets::Kind::AT_MOST, isLearnt ? bounds->second.learnt : bounds->second.configured,
            field.Ratios(field.Lanes()[i]));
    }
}

void MeasureCondition(Bench& bench, const Condition& condition)
{
    const auto& [burst, nReceivers] = condition;
    const std::vector<Entry> entries = Contenders(bench.settings, condition);
    Field field(bench.settings, bench.outlet);
    for (const Entry& entry : entries)
        field.Add(entry, nReceivers, burst);
    printf("\nCPU per delivered datagram, N=%d, %d datagrams/s, %s: ratio to B\n", nReceivers,
        bench.settings.perSecond, FeedName(burst).c_str());
    field.MeasureCpu();
    field.PrintLanes();
    printf("%s\n", field.Report().c_str());
    AddTargets(bench, field, entries, condition);
}

} // namespace

void MeasureCpu(Bench& bench)
{
    const bool isOneReceiver = bench.settings.receivers.size() == 1;
    for (const int burst : bench.settings.bursts) {
        for (const int32_t nReceivers : bench.settings.receivers) {
            if (burst == 1 || nReceivers > 1 || isOneReceiver)
                MeasureCondition(bench, { burst, nReceivers });
        }
    }
}
