// arqctl: talks to running proxies, and shows them.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string_view>

#include "arqctl/cli/commands.h"
#include "arqctl/cli/common_options.h"

namespace arqctl {

namespace {

constexpr auto PURPOSE = "arqctl talks to running proxies, tx_proxy: commands, a check of the machine,\n"
                         "a live view, a web page and metrics.";

void AddCommands(CLI::App& app, Session& session)
{
    AddListCommand(app, session);
    AddAddCommand(app, session);
    AddDelCommand(app, session);
    AddResetCommand(app, session);
    AddDebugCommand(app, session);
    AddDrainCommand(app, session);
    AddInstancesCommand(app, session);
    AddStatsCommand(app, session);
    AddImpairCommand(app, session);
    AddDoctorCommand(app, session);
    AddCalcCommand(app, session);
    AddTopCommand(app, session);
    AddServeCommand(app, session);
}

ExitStatus RefuseUsage(const Session& session, const CLI::App& app, const std::string& problem)
{
    const std::vector<CLI::App*> chosen = app.get_subcommands();
    const std::string command = chosen.empty() ? "" : " " + chosen.front()->get_name();
    return Fail(
        session, ExitStatus::Usage, problem, "Try 'arqctl" + command + " --help' for options and examples.");
}

ExitStatus Run(int argc, char** argv, Session& session)
{
    CLI::App app(PURPOSE, "arqctl");
    AddCommonOptions(app, session);
    AddCommands(app, session);
    FinishHelp(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        (void)fputs(app.help().c_str(), stdout);
        return ExitStatus::Good;
    } catch (const CLI::CallForVersion& version) {
        (void)fprintf(stdout, "%s\n", version.what());
        return ExitStatus::Good;
    } catch (const CLI::ParseError& error) {
        return RefuseUsage(session, app, UsageProblem(app, error));
    }
    const std::string problem = Contradiction(app);
    return problem.empty() ? session.run() : RefuseUsage(session, app, problem);
}

// What waits in the buffer may find no room on the disk.
ExitStatus Written(ExitStatus status)
{
    if (fflush(stdout) == 0)
        return status;
    perror("arqctl: cannot write to standard output");
    return ExitStatus::NoStart;
}

} // namespace

} // namespace arqctl

int main(int argc, char** argv)
{
    using arqctl::ExitStatus;
    arqctl::Session session;
    // Also when options are wrong: who reads JSON gets an object in any case.
    session.isJson = std::any_of(argv, argv + argc, [](std::string_view text) { return text == "--json"; });
    try {
        return static_cast<int>(arqctl::Written(arqctl::Run(argc, argv, session)));
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "arqctl: cannot go on: %s\n", error.what());
        return static_cast<int>(ExitStatus::NoStart);
    }
}
