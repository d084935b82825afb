#pragma once

#include <cstdint>
#include <string>
#include <variant>

namespace demo {

enum class Source : uint8_t { Automatic, BuiltIn, Picture };

struct Options {
    int seconds = 30;
    Source source = Source::Automatic;
    bool wantsColor = true;
    bool wantsView = true; // where there is a terminal
    bool wantsSandbox = true;
    std::string folder = "demo-out"; // for what the run leaves
};

// What ends the program at once: a text for standard output (status 0) or for standard error (status 2).
struct Ending {
    int status;
    std::string text;
};

std::variant<Options, Ending> ParseOptions(int count, const char* const* arguments);

} // namespace demo
