#include <cstdio>

#include "bench.h"
#include "entries.h"
#include "field.h"

void MeasureTrains(Bench& bench)
{
    constexpr int BURST = 64; // as many pieces as every kernel takes
    const int32_t nReceivers = bench.settings.receivers.back();
    Field field(bench.settings, bench.outlet);
    field.Add(BareLoop(), nReceivers, BURST);
    for (const int limit : { 1, 2, 4, 8, 16, 32, 64 }) {
        const std::string text = std::to_string(limit);
        field.Add(Floor("floor: trains of " + text + " at most", { "--train", text, "--receive", "many" }),
            nReceivers, BURST);
    }
    printf("\nWhat longer trains are worth: N=%d, %d datagrams/s, bursts of %d: ratio to B\n", nReceivers,
        bench.settings.perSecond, BURST);
    field.MeasureCpu();
    field.PrintLanes();
    printf("%s\n", field.Report().c_str());
}
