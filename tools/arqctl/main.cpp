// arqctl: talks to running proxies, and shows them.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>

#include "arqctl/cli/commands.h"
#include "common/quantity.h"

namespace arqctl {

namespace {

void AddCommonOptions(CLI::App& app, Session& session)
{
    app.add_option("-I,--instance", session.target.instance, "the proxy's instance number, its -I [1]");
    app.add_option("--socket", session.target.socketPath, "its control socket by path");
    app.add_option_function<std::string>(
        "--via",
        [&session](const std::string& text) {
            constexpr std::string_view SSH = "ssh:";
            if (!text.starts_with(SSH) || !IsSshHost(std::string_view(text).substr(SSH.size())))
                throw CLI::ValidationError("--via", "'" + text + "' is not ssh:HOST");
            session.target.via = text.substr(SSH.size());
        },
        "on another machine: ssh:HOST or ssh:USER@HOST");
    app.add_option_function<std::string>(
        "--timeout",
        [&session](const std::string& text) {
            if (!common::ParseDuration(text, session.patienceUs))
                throw CLI::ValidationError("--timeout", "'" + text + "' is not a time; write 5s or 500ms");
        },
        "how long the proxy may take to answer [5s]");
    app.add_flag("--json", session.isJson, "JSON on standard output, one object a line");
    app.set_help_flag("-h,--help", "show this and end");
    app.set_version_flag("--version", "arqctl " TX_PROXY_VERSION, "show the version and end");
    app.fallthrough(); // they may stand behind the command too
    app.require_subcommand(1);
}

int Run(int argc, char** argv)
{
    Session session;
    CLI::App app("Talks to running proxies, and shows them.", "arqctl");
    AddCommonOptions(app, session);
    AddListCommand(app, session);
    AddServeCommand(app, session);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForVersion& version) {
        return app.exit(version);
    } catch (const CLI::ParseError& error) {
        return static_cast<int>(
            Fail(session, ExitStatus::Usage, error.what(), "Try 'arqctl --help' for commands and examples."));
    }
    return static_cast<int>(session.run());
}

} // namespace

} // namespace arqctl

int main(int argc, char** argv)
{
    try {
        return arqctl::Run(argc, argv);
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "arqctl: cannot go on: %s\n", error.what());
        return static_cast<int>(arqctl::ExitStatus::NoStart);
    }
}
