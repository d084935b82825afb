#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "arqctl/proxy/target.h"

namespace arqctl::top {

struct TopOptions {
    std::vector<Target> targets; // none: whatever runs on this machine
    bool isPlain = false; // lines of text even on a terminal
    bool wantsColour = true;
    int64_t patienceUs = 0; // for one answer of a proxy
};

// How it ended: without a problem it was told to, by a key or a signal, or its reader went away.
struct TopEnd {
    std::string problem;
    std::string advice;
};

// Shows the proxies until the user or a signal (SIGINT, SIGTERM, SIGHUP, SIGQUIT) ends it: in a terminal as a whole screen
// with keys, else as plain lines, one a second and proxy. The terminal is given back however it ends. One thread.
TopEnd RunTop(const TopOptions& options);

} // namespace arqctl::top
