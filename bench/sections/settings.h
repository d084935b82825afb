#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What the comparison can be told.
struct Settings {
    int rounds = 7;
    double seconds = 1; // a turn of one contender in a round
    int perSecond = 2000; // datagrams of 1328 bytes
    double quietBelow = 0.15; // processors' worth of other use above which a round is taken again
    bool loopback = false;
    bool sleep = false; // the sender sleeps between two datagrams
    bool floors = true;
    bool peers = true;
    bool quick = false; // a smoke run: does everything work?
    std::vector<int32_t> receivers { 1, 10, 50 };
    std::vector<int> bursts { 1, 32 };
    std::vector<std::string> proxies; // paths of tx_proxy binaries, one at least
    std::vector<std::string> only; // names of sections; empty: all

    bool Wants(const std::string& section) const;
};

// Gives up, with a text that says how it is used, on anything it does not know. `sections` are the names that
// --only takes.
Settings ReadSettings(int argc, char** argv, const std::vector<std::string>& sections);
