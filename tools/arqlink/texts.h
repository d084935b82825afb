#pragma once

#include "arqlink/options.h"

#include <map>
#include <string>
#include <vector>

namespace arqlink {

// A setting is written for both directions or for one; in the order in which they are applied.
constexpr const char* DIRECTIONS[] = { "", "down-", "up-" };

// The command line as it was written; what was not given is empty.
struct Texts {
    std::vector<std::string> pairs;
    std::map<std::string, std::string> settings; // "down-loss" -> "5%"; every name is there
    std::string seed;
    std::string script;
    std::string duration;
    std::string clients;
    std::string idle;
    std::string source;
    std::string sourcePool;
    std::string memory;
    std::string interval;
};

// Looks names up and reads the script. False: `problem` says what is wrong, as a sentence without its full stop.
bool ReadTexts(const Texts& texts, Options& options, std::string& problem);

} // namespace arqlink
