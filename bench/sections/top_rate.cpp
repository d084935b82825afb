#include <algorithm>
#include <cstdio>
#include <map>

#include "../support/media.h"
#include "bench.h"
#include "entries.h"
#include "field.h"

namespace {

// One contender's search.
struct Search {
    double perSecond; // the highest rate found last
    bool senderLimited = false; // the sender did not get further, not the contender
    std::vector<double> found; // one entry a round
};

enum class Verdict { KEPT, LOST, SENDER_LATE };

// Feeds one lane at one rate. It keeps up when every receiver has everything shortly after the last datagram:
// what still waits then, in a socket's buffer or in a queue, would have been lost a little later.
Verdict Try(Bench& bench, Field& field, const Lane& lane, double perSecond)
{
    const int64_t latestNs = bench.settings.quick ? 2000000000 : 30000000; // a smoke run judges no speed
    constexpr int64_t DRAINED_NS = 50000000;
    constexpr double LATE = 1.05;
    const double seconds = bench.settings.quick ? 0.05 : 0.4;
    field.KeepAllKnown();
    Feed feed(lane.contender->InputPort(), static_cast<int>(perSecond), 1);
    const int64_t before = bench.outlet.Delivered(sizeof(MediaDatagram));
    const int64_t start = WallNs();
    const int64_t wanted = feed.Run(seconds) * lane.contender->ReceiverCount();
    const auto tookS = static_cast<double>(WallNs() - start) / 1e9;
    int64_t got = AwaitDelivery(bench.outlet, before, wanted, latestNs);
    if (got >= wanted)
        return tookS > LATE * seconds ? Verdict::SENDER_LATE : Verdict::KEPT;
    for (int64_t last = -1; got != last;) { // nothing of this trial reaches the next one
        last = got;
        got = AwaitDelivery(bench.outlet, before, wanted, DRAINED_NS);
    }
    return Verdict::LOST;
}

// One failure may be the machine's.
Verdict TryTwice(Bench& bench, Field& field, const Lane& lane, double perSecond)
{
    const Verdict first = Try(bench, field, lane, perSecond);
    return first == Verdict::KEPT ? first : Try(bench, field, lane, perSecond);
}

// From the last round's rate on: down until it keeps up, up until it does not, then between the two.
void FindHighest(Bench& bench, Field& field, const Lane& lane, Search& search)
{
    constexpr double STEP = 1.3;
    constexpr double LEAST = 50;
    const int halvings = bench.settings.quick ? 0 : 4; // 1.6 %
    double keeps = search.perSecond / STEP;
    while (TryTwice(bench, field, lane, keeps) != Verdict::KEPT) {
        keeps /= STEP;
        if (keeps < LEAST)
            GiveUp(lane.contender->Name() + " loses datagrams at any rate");
    }
    double loses = keeps;
    Verdict verdict = Verdict::KEPT;
    while (verdict == Verdict::KEPT) {
        keeps = loses;
        loses *= STEP;
        verdict = TryTwice(bench, field, lane, loses);
        if (bench.settings.quick)
            break;
    }
    for (int i = 0; i < halvings; ++i) {
        const double middle = (keeps + loses) / 2;
        const Verdict there = TryTwice(bench, field, lane, middle);
        (there == Verdict::KEPT ? keeps : loses) = middle;
        verdict = there == Verdict::KEPT ? verdict : there;
    }
    search.senderLimited = verdict == Verdict::SENDER_LATE;
    search.perSecond = keeps;
}

std::vector<Entry> Contenders(const Settings& settings)
{
    std::vector<Entry> entries { BareLoop() };
    for (const Entry& entry : Proxies(settings))
        entries.push_back(entry);
    if (settings.floors) {
        entries.push_back(Floor("floor: two threads, plain", {}));
        entries.push_back(Floor("floor: trains", { "--train", "32", "--receive", "many" }));
    }
    return entries;
}

void MeasureFor(Bench& bench, int32_t nReceivers)
{
    static const std::map<int32_t, double> s_bounds { { 10, 2.5 }, { 50, 4.0 } };
    constexpr double FIRST_GUESS = 150000; // datagrams/s out
    constexpr double BITS = 8 * sizeof(MediaDatagram);
    constexpr double GIGA = 1e9;
    const std::vector<Entry> entries = Contenders(bench.settings);
    Field field(bench.settings, bench.outlet);
    for (const Entry& entry : entries)
        field.Add(entry, nReceivers, 1);
    const double guess = bench.settings.quick ? 500 : FIRST_GUESS / nReceivers;
    std::vector<Search> searches(entries.size(), Search { guess, false, {} });
    Rounds rounds(bench.settings, field.Pids());
    rounds.Repeat(
        [&](int round) {
            for (size_t i = 0; i < entries.size(); ++i) {
                const size_t which = (i + static_cast<size_t>(round)) % entries.size();
                FindHighest(bench, field, field.Lanes()[which], searches[which]);
            }
        },
        [&] {
            for (Search& search : searches)
                search.found.push_back(search.perSecond);
        });
    printf("\nHighest input rate without loss, N=%d, evenly: ratio to B\n", nReceivers);
    for (size_t i = 0; i < entries.size(); ++i) {
        const PairedFigures ratios { searches.front().found, searches[i].found };
        const double perSecond = Median(searches[i].found);
        printf("  %-36s %8.0f packets/s %6.2f Gbit/s out %6.2f  (%.2f to %.2f)%s\n", entries[i].name.c_str(),
            perSecond, perSecond * nReceivers * BITS / GIGA, ratios.MedianRatio(), ratios.LowestRatio(),
            ratios.HighestRatio(), searches[i].senderLimited ? "  and more: the sender was at its end" : "");
        const auto bound = s_bounds.find(nReceivers);
        if (entries[i].kind != Entry::Kind::FLOOR && bound != s_bounds.end())
            bench.targets.Add(
                "highest rate without loss, N=" + std::to_string(nReceivers) + ", " + entries[i].name,
                Targets::Kind::AT_LEAST, bound->second, ratios);
    }
    printf("%s\n", rounds.Report().c_str());
}

} // namespace

void MeasureTopRate(Bench& bench)
{
    for (const int32_t nReceivers : bench.settings.receivers) {
        if (nReceivers > 1)
            MeasureFor(bench, nReceivers);
    }
}
