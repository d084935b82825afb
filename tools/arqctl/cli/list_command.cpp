#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "arqctl/cli/commands.h"
#include "arqctl/core/reply.h"

namespace arqctl {

namespace {

ExitStatus List(const Session& session)
{
    const Answer answer = AskProxy(session, "List");
    if (!answer.IsThere())
        return FailedAnswer(session, answer.failure);
    std::vector<std::string> receivers;
    if (!ParseReceivers(answer.reply, receivers))
        return FailedAnswer(session, Failure::CutOff);
    if (session.isJson) {
        fmt::print("{}\n", nlohmann::ordered_json { { "receivers", receivers } }.dump());
        return ExitStatus::Good;
    }
    for (const std::string& receiver : receivers)
        fmt::print("{}\n", receiver);
    return ExitStatus::Good;
}

} // namespace

void AddListCommand(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("list", "the receivers of a proxy, one a line");
    command->callback([&session] { session.run = [&session] { return List(session); }; });
}

} // namespace arqctl
