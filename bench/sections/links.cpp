#include <cstdio>

#include "bench.h"
#include "entries.h"
#include "field.h"

void MeasureLinks(Bench& bench)
{
    const std::vector<Entry> links = Links();
    if (links.empty() || !bench.settings.peers)
        return;
    const std::unique_ptr<Outlet> outlet = MakeLoopbackOutlet(); // their receivers must be able to answer
    Field field(bench.settings, *outlet);
    field.Add(BareLoop(), 1, 1);
    for (const Entry& entry : Proxies(bench.settings))
        field.Add(entry, 1, 1);
    for (const Entry& entry : links)
        field.Add(entry, 1, 1);
    printf(
        "\nCPU per delivered datagram of programs whose receivers must answer, over loopback, N=1, %d datagrams/s,\n"
        "evenly; the sender's process alone: ratio to B\n",
        bench.settings.perSecond);
    field.MeasureCpu();
    field.PrintLanes();
    printf("%s\n", field.Report().c_str());
}
