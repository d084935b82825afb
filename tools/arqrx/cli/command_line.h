#pragma once

#include <string>

#include "arqrx/program/options.h"

namespace arqrx {

// What a command line comes to.
struct CommandLine {
    bool isRunning = false; // `options` say what to do; else `text` is the answer to it
    Options options;
    bool isError = false; // the text is a sentence that says what is wrong
    std::string text;
};

// Reads options and the configuration file that they may name. Throws nothing.
CommandLine ReadCommandLine(int argc, const char* const* argv);

} // namespace arqrx
