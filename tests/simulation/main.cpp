// The proxy's heart on virtual time: many seeds, each with its own receivers, links, faults and clocks.
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "simulation/config.h"
#include "simulation/failure.h"
#include "simulation/recovery.h"
#include "simulation/simulated_receiver.h"
#include "simulation/world.h"

using namespace simulation;

namespace {

constexpr uint64_t REPEATED_SHARE = 8; // one of so many seeds is run twice
constexpr uint64_t ENOUGH_FOR_WRAPS = 300; // seeds after which every kind of wrap has been passed
constexpr uint64_t ENOUGH_FOR_TRAINS = 16; // seeds in which some of what leaves in company does so
constexpr double NO_LIMIT = 1e9;

struct Options {
    uint64_t first = 1;
    uint64_t count = UINT64_MAX;
    double seconds = NO_LIMIT;
    bool isVerbose = false;
    bool isSingle = false;
};

// Over all seeds so far.
struct Totals {
    uint64_t seeds = 0;
    uint64_t repeated = 0;
    uint64_t events = 0;
    uint64_t datagrams = 0;
    uint64_t mostDatagrams = 0; // of one seed
    uint64_t recovered = 0;
    PlayedTotals played;
    double virtualDays = 0;
    WrapCounts wraps;
    SendCounts sends;
    uint64_t routes = 0;
};

[[noreturn]] void PrintUsage()
{
    fprintf(stderr,
        "usage: simulation [--seed N | --seeds FIRST:COUNT] [--seconds WALL] [--verbose]\n"
        "       simulation --recovery [loss=PERCENT] [latency=MS] ...\n");
    exit(static_cast<int>(Outcome::Usage));
}

uint64_t ReadNumber(const char* text, char** end)
{
    const uint64_t number = strtoull(text, end, 10);
    if (*end == text)
        PrintUsage();
    return number;
}

Options ReadOptions(int argc, char** argv)
{
    Options options;
    char* end = nullptr;
    for (int i = 1; i < argc; ++i) {
        const bool hasValue = i + 1 < argc;
        if (strcmp(argv[i], "--verbose") == 0) {
            options.isVerbose = true;
        } else if (strcmp(argv[i], "--seed") == 0 && hasValue) {
            options.first = ReadNumber(argv[++i], &end);
            options.count = 1;
            options.isSingle = true;
        } else if (strcmp(argv[i], "--seeds") == 0 && hasValue) {
            options.first = ReadNumber(argv[++i], &end);
            if (*end != ':')
                PrintUsage();
            options.count = ReadNumber(end + 1, &end);
        } else if (strcmp(argv[i], "--seconds") == 0 && hasValue) {
            options.seconds = strtod(argv[++i], &end);
        } else {
            PrintUsage();
        }
    }
    if (options.count == UINT64_MAX && options.seconds >= NO_LIMIT)
        options.seconds = 60;
    return options;
}

RunResult RunSeed(uint64_t seed, bool isVerbose)
{
    TellSeed(seed);
    const Config config(seed);
    TellConfig(isVerbose ? nullptr : &config);
    World world(config);
    if (isVerbose) {
        config.Print(Report());
        world.Echo(Report());
    }
    const RunResult result = world.Run();
    TellConfig(nullptr);
    return result;
}

void Add(Totals& totals, const RunResult& result)
{
    ++totals.seeds;
    totals.events += result.events;
    totals.datagrams += result.datagrams;
    totals.mostDatagrams = std::max(totals.mostDatagrams, result.datagrams);
    totals.recovered += result.recovered;
    totals.played.Add(result.played);
    totals.virtualDays += static_cast<double>(result.virtualUs) / 86400e6;
    totals.wraps.Add(result.wraps);
    totals.sends.Add(result.sends);
    totals.routes += result.routes;
}

void RunAndRepeat(uint64_t seed, const Options& options, Totals& totals)
{
    const RunResult result = RunSeed(seed, options.isVerbose);
    Add(totals, result);
    if (options.isSingle)
        fprintf(Report(), "seed %" PRIu64 ": hash %016" PRIx64 ", %" PRIu64 " events\n", seed, result.hash,
            result.events);
    if (seed % REPEATED_SHARE != 0)
        return;
    ++totals.repeated;
    const RunResult second = RunSeed(seed, false);
    if (second.hash != result.hash)
        Fail(Outcome::NotRepeatable, "seed %" PRIu64 " has hash %016" PRIx64 ", then %016" PRIx64, seed,
            result.hash, second.hash);
}

// Datagrams must have left in trains, and all that may happen to them have happened.
void PrintSends(const Totals& totals)
{
    const SendCounts& sends = totals.sends;
    const struct {
        uint64_t count;
        const char* text;
    } wanted[] = { { sends.inTrains, "datagrams in trains" }, { sends.trains, "trains" },
        { sends.refusedTrains, "trains refused" },
        { sends.partialMany, "calls that took some of their messages" },
        { sends.wouldWait, "sends that would have had to wait" },
        { sends.pendingErrors, "answers to connected sockets" },
        { sends.readTogether, "datagrams of receivers read behind others" },
        { totals.routes, "changes of the route" } };
    fprintf(Report(), "sends:");
    for (const auto& [count, text] : wanted)
        fprintf(Report(), "%s %s %" PRIu64, text == wanted[0].text ? "" : ",", text, count);
    fprintf(Report(), "\n");
    for (const auto& [count, text] : wanted) {
        if (totals.seeds >= ENOUGH_FOR_TRAINS && count == 0)
            Fail(Outcome::BrokenInvariant, "no seed had %s", text);
    }
}

// Receivers that play out must have met what they are for.
void PrintPlayed(const Totals& totals)
{
    const PlayedTotals& played = totals.played;
    const struct {
        uint64_t count;
        const char* text;
    } wanted[] = { { played.lives, "programs" }, { played.played, "packets" }, { played.resends, "resends" },
        { played.recovered, "recovered" }, { played.lost, "lost" }, { played.disbelieved, "disbelieved" },
        { played.requests, "requests" }, { played.restarts, "begun afresh" },
        { played.steps, "of these for nothing but the clock" } };
    if (!HasArqrx())
        return;
    fprintf(Report(), "played out by arqrx:");
    for (const auto& [count, text] : wanted)
        fprintf(Report(), "%s %s %" PRIu64, text == wanted[0].text ? "" : ",", text, count);
    fprintf(Report(), "\n");
    for (const auto& [count, text] : wanted) {
        if (totals.seeds >= ENOUGH_FOR_WRAPS && count == 0)
            Fail(Outcome::BrokenInvariant, "no seed had played out: %s", text);
    }
}

// Every kind of counter must have come round where there were seeds enough for it.
void PrintTotals(const Totals& totals, double seconds)
{
    fprintf(Report(),
        "%" PRIu64 " seeds in %.1f s: %.1f virtual days, %" PRIu64 " datagrams (%" PRIu64
        " at most in a seed), %" PRIu64 " recovered packets, %" PRIu64 " events; %" PRIu64
        " seeds run twice\n",
        totals.seeds, seconds, totals.virtualDays, totals.datagrams, totals.mostDatagrams, totals.recovered,
        totals.events, totals.repeated);
    PrintSends(totals);
    PrintPlayed(totals);
    fprintf(Report(), "wraps passed:");
    for (size_t i = 0; i < WRAP_KINDS; ++i)
        fprintf(Report(), "%s %s %" PRIu64, i == 0 ? "" : ",", WRAP_NAMES[i], totals.wraps.passed[i]);
    fprintf(Report(), "\n");
    for (size_t i = 0; i < WRAP_KINDS; ++i) {
        if (totals.seeds >= ENOUGH_FOR_WRAPS && totals.wraps.passed[i] == 0)
            Fail(Outcome::BrokenInvariant, "no seed passed a wrap of %s", WRAP_NAMES[i]);
    }
}

} // namespace

int main(int argc, char** argv)
{
    using Clock = std::chrono::steady_clock;
    if (argc > 1 && strcmp(argv[1], "--recovery") == 0) {
        SeparateProxyOutput(false);
        return RunRecovery(argc - 2, argv + 2);
    }
    const Options options = ReadOptions(argc, argv);
    SeparateProxyOutput(options.isVerbose);
    ReportCrashes();
    Totals totals;
    const Clock::time_point begin = Clock::now();
    const auto elapsed = [begin] { return std::chrono::duration<double>(Clock::now() - begin).count(); };
    for (uint64_t i = 0; i < options.count && elapsed() < options.seconds; ++i)
        RunAndRepeat(options.first + i, options, totals);
    PrintTotals(totals, elapsed());
    (void)fflush(Report());
    return static_cast<int>(Outcome::Fine);
}
