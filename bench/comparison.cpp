// The proxy beside the least that can be done (B), beside what each technique of the kernel's gives
// (bench/floors) and beside other programs, all under the same traffic in the same rounds.
#include <sys/prctl.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "sections/bench.h"
#include "sections/entries.h"
#include "support/child.h"
#include "support/media.h"
#include "support/outlet.h"
#include "support/paced_stream.h"
#include "support/scratch_folder.h"
#include "support/udp.h"

namespace {

struct Section {
    const char* name;
    void (*measure)(Bench&);
};

constexpr Section SECTIONS[] {
    { "cpu", MeasureCpu },
    { "handover", MeasureHandover },
    { "trains", MeasureTrains },
    { "growth", MeasureGrowth },
    { "rate", MeasureTopRate },
    { "encoder", MeasureEncoder },
    { "latency", MeasureLatency },
    { "memory", MeasureMemory },
    { "links", MeasureLinks },
    { "requests", MeasureRequests },
    { "asking", MeasureAsking },
};

std::vector<std::string> SectionNames()
{
    std::vector<std::string> names;
    for (const Section& section : SECTIONS)
        names.emplace_back(section.name);
    return names;
}

// A device in a namespace of its own, or loopback where that was asked for or nothing else can be had.
std::unique_ptr<Outlet> MakeOutlet(const Settings& settings)
{
    std::string why;
    std::unique_ptr<Outlet> outlet = settings.loopback ? nullptr : MakeDeviceOutlet(why);
    if (outlet != nullptr)
        return outlet;
    if (!settings.loopback)
        printf("NOT in a network namespace of its own: %s\n", why.c_str());
    return MakeLoopbackOutlet();
}

void PrintHead(const Bench& bench)
{
    printf(
        "%s\n%d rounds, turns of %g s, datagrams of %zu bytes; ratios: median (lowest to highest) of the rounds\n",
        bench.outlet.Description().c_str(), bench.settings.rounds, bench.settings.seconds,
        sizeof(MediaDatagram));
    if (!bench.settings.peers)
        return;
    for (const std::string& name : Absent())
        printf("not installed: %s\n", name.c_str());
}

} // namespace

int main(int argc, char** argv)
{
    (void)setvbuf(stdout, nullptr, _IOLBF, 0); // each line is there when it is known
    (void)std::signal(SIGPIPE, SIG_IGN); // who stops reading does not leave our processes behind
    return RunBenchmark([=] {
        StopOnSignals();
        const Settings settings = ReadSettings(argc, argv, SectionNames());
        const std::unique_ptr<Outlet> outlet = MakeOutlet(settings);
        CheckCounting(*outlet, FreePort());
        const ScratchFolder scratch;
        (void)setenv("HOME", scratch.Path().c_str(), 1); // where other programs keep what they remember
        (void)setenv("XDG_CACHE_HOME", scratch.Path().c_str(), 1);
        (void)prctl(PR_SET_TIMERSLACK, 1); // an even stream is even
        FeedAsleep(settings.sleep);
        Bench bench { settings, *outlet, scratch.Path(), {} };
        PrintHead(bench);
        for (const Section& section : SECTIONS) {
            if (settings.Wants(section.name))
                section.measure(bench);
        }
        if (!settings.quick)
            bench.targets.Print();
    });
}
