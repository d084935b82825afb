#pragma once

#include <cstdint>

#include "arqctl/cli/session.h"
#include "arqctl/cli/stats_forms.h"

namespace arqctl {

// How long and in which way a proxy is watched.
struct WatchSettings {
    StatsForm form = StatsForm::People;
    int64_t periodUs = 1'000'000;
    uint64_t count = 0; // questions after which it ends; 0: never
    bool endsWhenDown = false; // with the first question that is not answered
};

// Asks the proxy once a period and prints a line for each answer, until SIGINT or SIGTERM, the count, or a reader that
// has gone. Resets nothing. A proxy that goes away is told once, and so is its coming back; only the first question must
// be answered.
ExitStatus WatchStats(const Session& session, const WatchSettings& settings);

} // namespace arqctl
