#include <cstdio>

#include "bench.h"
#include "entries.h"
#include "field.h"

void MeasureHandover(Bench& bench)
{
    const std::vector<std::string> timeOut { "--time-out", "250" }; // ms, the proxy's
    const std::vector<std::string> condition { "--wake", "condition" };
    Field field(bench.settings, bench.outlet);
    field.Add(BareLoop(), 1, 1);
    field.Add(Floor("floor: two threads, a bare futex", {}), 1, 1);
    field.Add(Floor("  with a receive time-out", timeOut), 1, 1);
    field.Add(Floor("  with a mutex and a condition", condition), 1, 1);
    field.Add(Floor("  with the clock read for each packet", { "--stamp" }), 1, 1);
    field.Add(Floor("  with recvmmsg", { "--receive", "many" }), 1, 1);
    field.Add(Floor("  with all of these",
                  { "--time-out", "250", "--wake", "condition", "--receive", "many", "--stamp" }),
        1, 1);
    for (const Entry& entry : Proxies(bench.settings))
        field.Add(entry, 1, 1);
    printf("\nWhat a hand-over costs: N=1, %d datagrams/s evenly: ratio to B\n", bench.settings.perSecond);
    field.MeasureCpu();
    field.PrintLanes();
    printf("%s\n", field.Report().c_str());
}
