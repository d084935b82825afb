#pragma once

#include <CLI/CLI.hpp>

#include "arqctl/cli/session.h"

namespace arqctl {

// Each adds one command with its options to the program; chosen, it sets session.run. One file a command.
void AddListCommand(CLI::App& app, Session& session);
void AddServeCommand(CLI::App& app, Session& session);
void AddAddCommand(CLI::App& app, Session& session);
void AddDelCommand(CLI::App& app, Session& session);
void AddResetCommand(CLI::App& app, Session& session);
void AddDebugCommand(CLI::App& app, Session& session);
void AddDrainCommand(CLI::App& app, Session& session);
void AddInstancesCommand(CLI::App& app, Session& session);
void AddStatsCommand(CLI::App& app, Session& session);
void AddImpairCommand(CLI::App& app, Session& session);
void AddDoctorCommand(CLI::App& app, Session& session);
void AddCalcCommand(CLI::App& app, Session& session);
void AddTopCommand(CLI::App& app, Session& session);

} // namespace arqctl
