#include "arqctl/cli/remote_command.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>

#include "arqctl/proxy/ssh.h"
#include "common/quantity.h"

namespace arqctl {

namespace {

constexpr int NOT_FOUND = 127; // what shells say of a program that is not there
constexpr int MAY_NOT_RUN = 126;
constexpr int64_t THERE_US = 60'000'000; // checks over there may ask several proxies

std::string ProgramThere()
{
    const char* const name = getenv("ARQCTL_THERE");
    return name && *name ? name : "arqctl";
}

// Lines from another machine: nothing in them may command this terminal.
std::string Harmless(std::string text)
{
    const auto isControl = [](char letter) {
        return (static_cast<unsigned char>(letter) < ' ' && letter != '\n' && letter != '\t')
            || letter == 0x7F;
    };
    std::replace_if(text.begin(), text.end(), isControl, '?');
    return text;
}

std::vector<std::string> WordsThere(const Session& session, const std::vector<std::string>& words)
{
    std::vector<std::string> all { ProgramThere() };
    all.insert(all.end(), words.begin(), words.end());
    if (session.target.socketPath.empty())
        all.insert(all.end(), { "-I", std::to_string(session.target.instance) });
    else
        all.insert(all.end(), { "--socket", session.target.socketPath });
    all.insert(all.end(), { "--timeout", common::DurationText(session.patienceUs) });
    if (session.isJson)
        all.emplace_back("--json");
    return all;
}

} // namespace

ExitStatus RunThere(const Session& session, const std::vector<std::string>& words)
{
    const std::string& host = session.target.via;
    const RemoteRun run = RunRemote(host, WordsThere(session, words), "", THERE_US + session.patienceUs);
    if (!run.HasRun())
        return Fail(session, StatusOf(run.failure), run.trouble.problem, run.trouble.advice);
    if (run.status == NOT_FOUND || run.status == MAY_NOT_RUN)
        return Fail(session, ExitStatus::NoStart,
            "there is no program " + Printable(ProgramThere()) + " on " + host,
            "install arqctl there, name it with ARQCTL_THERE=/path/of/arqctl, or run this command there");
    fmt::print("{}", Harmless(run.output));
    fmt::print(stderr, "{}", Harmless(run.errors));
    const bool isOurs = run.status >= 0 && run.status <= static_cast<int>(ExitStatus::AlreadySo);
    return isOurs ? static_cast<ExitStatus>(run.status) : ExitStatus::BadAnswer;
}

} // namespace arqctl
