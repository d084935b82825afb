#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <nlohmann/json.hpp>

#include "arqctl/cli/commands.h"

namespace arqctl {

namespace {

// The file that the proxy's standard error is; "" when it is none, or may not be seen.
std::string StandardErrorOf(int pid)
{
    std::array<char, 1024> path;
    const std::string link = "/proc/" + std::to_string(pid) + "/fd/2";
    const ssize_t length = pid > 0 ? readlink(link.c_str(), path.data(), path.size()) : 0;
    const std::string text(path.data(), static_cast<size_t>(length > 0 ? length : 0));
    return text.starts_with('/') && !text.starts_with("/dev/null") ? text : "";
}

// There is no reply to Debug. That the proxy serves the next question shows that it has carried this one out.
ExitStatus Debug(const Session& session)
{
    const Answer answer = AskProxy(session, "Debug");
    if (!answer.IsThere())
        return FailedAnswer(session, answer.failure);
    Statistics statistics;
    const Failure failure = answer.reply.empty() ? AskStatistics(session, statistics) : Failure::Foreign;
    if (failure != Failure::None)
        return FailedAnswer(session, failure);
    const std::string file = StandardErrorOf(answer.peerPid);
    if (session.isJson) {
        nlohmann::ordered_json object { { "result", "done" },
            { "written_to", "standard error of the proxy" } };
        if (!file.empty())
            object["file"] = Printable(file);
        fmt::print("{}\n", object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
    } else {
        fmt::print("the proxy has written its dump to its own standard error{}\n",
            file.empty() ? "" : ": " + Printable(file));
    }
    return ExitStatus::Good;
}

} // namespace

void AddDebugCommand(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("debug", "makes a proxy write a dump to its standard error");
    command->footer("Examples:\n"
                    "  arqctl debug\n\n"
                    "The dump is not shown here: it is where the proxy's standard error goes, its\n"
                    "journal or log.\n");
    command->callback([&session] { session.run = [&session] { return Debug(session); }; });
}

} // namespace arqctl
