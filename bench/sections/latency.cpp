#include <algorithm>
#include <cstdio>
#include <map>

#include "../support/media.h"
#include "../support/paced_stream.h"
#include "../support/reading_outlet.h"
#include "bench.h"
#include "entries.h"
#include "field.h"
#include "rounds.h"

namespace {

constexpr int PER_SECOND = 800; // the receivers are read, so they too need the machine
constexpr double P99 = 0.99;

// Medians of one lane, one entry a round, in us.
struct Latencies {
    std::vector<double> first;
    std::vector<double> any;
    std::vector<double> last;
    std::vector<double> anyP99;
};

struct LatencyLane {
    std::unique_ptr<Contender> contender;
    std::unique_ptr<PacedStream> stream;
    TurnResult turn; // of the round that is being taken
    Latencies latencies;
};

void Record(LatencyLane& lane)
{
    if (lane.turn.delivered == 0)
        GiveUp(lane.contender->Name() + " delivered nothing");
    lane.latencies.first.push_back(Median(lane.turn.firstReceiverUs));
    lane.latencies.any.push_back(Median(lane.turn.anyReceiverUs));
    lane.latencies.last.push_back(Median(lane.turn.lastReceiverUs));
    lane.latencies.anyP99.push_back(Percentile(lane.turn.anyReceiverUs, P99));
}

void Print(const std::vector<LatencyLane>& lanes)
{
    const std::pair<const char*, std::vector<double> Latencies::*> figures[] {
        { "first receiver", &Latencies::first },
        { "all receivers", &Latencies::any },
        { "last receiver", &Latencies::last },
        { "all receivers, p99", &Latencies::anyP99 },
    };
    for (const LatencyLane& lane : lanes) {
        for (const auto& [name, member] : figures) {
            const PairedFigures ratios { lanes.front().latencies.*member, lane.latencies.*member };
            printf("  %-36s %-20s %8.1f us %6.2f  (%.2f to %.2f)\n", lane.contender->Name().c_str(), name,
                Median(lane.latencies.*member), ratios.MedianRatio(), ratios.LowestRatio(),
                ratios.HighestRatio());
        }
    }
}

void AddTargets(
    Bench& bench, const std::vector<LatencyLane>& lanes, const std::vector<Entry>& entries, int32_t count)
{
    static const std::map<int32_t, double> s_bounds { { 1, 1.5 }, { 10, 1.2 }, { 50, 1.05 } };
    constexpr double BOUND_FIRST_OF_50 = 1.6;
    const auto bound = s_bounds.find(count);
    for (size_t i = 0; i < lanes.size() && bound != s_bounds.end(); ++i) {
        if (entries[i].kind == Entry::Kind::FLOOR)
            continue;
        const auto add = [&](const char* what, double limit, std::vector<double> Latencies::*member) {
            bench.targets.Add("added latency, N=" + std::to_string(count) + what + ", " + entries[i].name,
                Targets::Kind::AT_MOST, limit,
                PairedFigures { lanes.front().latencies.*member, lanes[i].latencies.*member });
        };
        add("", bound->second, &Latencies::any);
        if (count == 50)
            add(", first receiver", BOUND_FIRST_OF_50, &Latencies::first);
    }
}

void MeasureFor(Bench& bench, int32_t nReceivers)
{
    std::vector<Entry> entries { BareLoop() };
    for (const Entry& entry : Proxies(bench.settings))
        entries.push_back(entry);
    if (bench.settings.floors)
        entries.push_back(Floor("floor: two threads, plain", {}));
    ReadingOutlet outlet;
    std::vector<LatencyLane> lanes;
    std::vector<pid_t> pids;
    const auto keepAllKnown = [&] {
        for (const LatencyLane& lane : lanes)
            lane.contender->StayKnown();
    };
    for (const Entry& entry : entries) {
        LatencyLane lane;
        lane.contender = std::make_unique<Contender>(entry, outlet, nReceivers);
        lane.stream = std::make_unique<PacedStream>(
            outlet.At(lane.contender->DestPort()), lane.contender->InputPort(), PER_SECOND);
        if (!bench.settings.quick)
            UseWholePool(entry, *lane.contender);
        (void)outlet.Delivered(sizeof(MediaDatagram)); // nothing of it stays in a receiver's socket
        pids.push_back(lane.contender->Process().Pid());
        lanes.push_back(std::move(lane));
        keepAllKnown();
    }
    Rounds rounds(bench.settings, pids);
    rounds.Repeat(
        [&](int round) {
            for (LatencyLane& lane : lanes)
                lane.turn = {};
            for (int piece = 0; piece < PiecesOf(bench.settings.seconds); ++piece) {
                for (size_t i = 0; i < lanes.size(); ++i) {
                    LatencyLane& lane = lanes[(i + static_cast<size_t>(round + piece)) % lanes.size()];
                    keepAllKnown();
                    lane.turn.Append(lane.stream->Run(std::min(PIECE_S, bench.settings.seconds)));
                }
            }
        },
        [&] {
            for (LatencyLane& lane : lanes)
                Record(lane);
        });
    printf("\nAdded latency over loopback, median, N=%d, %d datagrams/s evenly: ratio to B\n", nReceivers,
        PER_SECOND);
    Print(lanes);
    printf("%s\n", rounds.Report().c_str());
    AddTargets(bench, lanes, entries, nReceivers);
}

} // namespace

void MeasureLatency(Bench& bench)
{
    for (const int32_t nReceivers : bench.settings.receivers)
        MeasureFor(bench, nReceivers);
}
