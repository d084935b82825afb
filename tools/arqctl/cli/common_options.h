#pragma once

#include <CLI/CLI.hpp>

#include "arqctl/cli/session.h"

namespace arqctl {

// The program's own options, which may stand before a command or behind it, and its help. Before any command is added:
// commands take over how help looks.
void AddCommonOptions(CLI::App& app, Session& session);

// After the commands: how the program's own help shows them.
void FinishHelp(CLI::App& app);

// Whether -I, --socket or --via names a proxy.
bool IsProxyGiven(const CLI::App& app);

// What is wrong with the options taken together, as a sentence; "" when nothing is.
std::string Contradiction(const CLI::App& app);

// What was wrong while the command line was read, as a sentence.
std::string UsageProblem(const CLI::App& app, const CLI::ParseError& error);

} // namespace arqctl
