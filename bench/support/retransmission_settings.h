#pragma once

#include <string>
#include <vector>

// What the benchmark of requests can be told.
struct RetransmissionSettings {
    int rounds = 7;
    double seconds = 1; // a turn of either side
    double quietBelow = 0.15; // processors' worth of other use in a round that counts
    bool loopback = false;
    std::vector<std::string> proxies; // paths; the build's own when none is named
};

// Reads --rounds N, --seconds N, --quiet-below N, --proxy PATH (may come again) and --loopback. Gives up on anything
// else.
RetransmissionSettings ReadRetransmissionSettings(int argc, char** argv);
