#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "arqctl/cli/commands.h"

namespace arqctl {

namespace {

ExitStatus List(const Session& session)
{
    Statistics statistics;
    const Failure failure = AskStatistics(session, statistics);
    if (failure != Failure::None)
        return FailedAnswer(session, failure);
    if (session.isJson) {
        fmt::print("{}\n", nlohmann::ordered_json { { "receivers", statistics.receivers } }.dump());
        return ExitStatus::Good;
    }
    for (const std::string& receiver : statistics.receivers)
        fmt::print("{}\n", receiver);
    return ExitStatus::Good;
}

} // namespace

void AddListCommand(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("list", "the receivers of a proxy, one a line");
    command->footer("Examples:\n"
                    "  arqctl list\n"
                    "  arqctl -I 2 list --json\n\n"
                    "An address that joined with several stream IDs stands there once for each.\n");
    command->callback([&session] { session.run = [&session] { return List(session); }; });
}

} // namespace arqctl
