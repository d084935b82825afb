#include <cstdio>
#include <filesystem>

#include "../support/child.h"
#include "bench.h"

void MeasureRequests(Bench& bench)
{
    const std::string program
        = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "retransmission";
    printf("\nRequests: what bench/retransmission prints\n");
    (void)fflush(stdout);
    char seconds[32];
    (void)snprintf(seconds, sizeof(seconds), "%g", bench.settings.seconds);
    const Child child({ program, "--rounds", std::to_string(bench.settings.rounds), "--seconds", seconds },
        Child::Output::SHOWN);
    if (child.WaitForExit() != 0)
        GiveUp("bench/retransmission failed");
}
