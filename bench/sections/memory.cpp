#include <cstdio>
#include <tuple>

#include "../support/feed.h"
#include "bench.h"
#include "entries.h"

namespace {

constexpr int32_t STREAMS = 50;
constexpr int PER_SECOND = 2000;
constexpr int64_t POOL_ROUND
    = 4096 + 1024 + 100; // datagrams after which every buffer and every slot has been used
constexpr double KIB_PER_MIB = 1024;

// What it has in use after `seconds` of a stream, in MiB.
double MibAfter(const Contender& contender, double seconds)
{
    (void)Feed(contender.InputPort(), PER_SECOND, 1).Run(seconds);
    if (!contender.Process().IsAlive())
        GiveUp(contender.Name() + " ended by itself");
    return static_cast<double>(contender.Process().ResidentKib()) / KIB_PER_MIB;
}

} // namespace

void MeasureMemory(Bench& bench)
{
    const double fillS = bench.settings.quick ? 0.1 : static_cast<double>(POOL_ROUND) / PER_SECOND;
    printf("\nResident memory, %d streams, default ring, all of it used; and after twice as long\n", STREAMS);
    for (const auto& [name, options, bound] : { std::tuple("RTP", std::vector<std::string> {}, 13.0),
             std::tuple("-u", std::vector<std::string> { "-u" }, 32.0) }) {
        for (const Entry& entry : Proxies(bench.settings, options)) {
            Contender contender(entry, bench.outlet, STREAMS);
            const double mib = MibAfter(contender, fillS);
            contender.StayKnown();
            const double later = MibAfter(contender, fillS);
            printf("  %-36s %-4s %8.2f MiB %8.2f MiB\n", entry.name.c_str(), name, mib, later);
            bench.targets.Add(std::string("resident MiB, ") + name + ", " + entry.name,
                Targets::Kind::AT_MOST, bound, later);
        }
    }
}
