#pragma once

#include "arqlink/core/script.h"
#include "arqlink/relay/relay.h"

#include <cstdint>
#include <string>

namespace arqlink {

// Exit statuses.
constexpr int EXIT_DONE = 0; // ended by --duration, the script or a signal
constexpr int EXIT_TROUBLE = 1; // the system refused something: an address, a file
constexpr int EXIT_USAGE = 2; // the command line or a file that it names makes no sense

struct Options {
    RelayOptions relay;
    Script script; // empty: none
    bool bJson = false;
    bool bQuiet = false;
    std::string fatesPath; // empty: none
    int64_t intervalUs = 1'000'000; // between two reports
    int64_t durationUs = NEVER;
};

struct Parsed {
    bool bGoOn = false;
    int status = EXIT_DONE; // if it does not go on
    std::string problem; // empty: nothing to say, or said already
};

// Reads the command line and the files it names. --help and --version print to standard output and do not go on.
Parsed ParseOptions(int argc, char** argv, Options& options);

} // namespace arqlink
