#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "arqctl/cli/commands.h"
#include "arqctl/cli/common_options.h"
#include "arqctl/core/host_list.h"
#include "arqctl/core/ssh_texts.h"
#include "arqctl/serve/http_server.h"
#include "arqctl/serve/options.h"
#include "arqctl/serve/report_socket.h"

namespace arqctl {

namespace {

constexpr auto SERVE_EXAMPLES = R"(Examples:
  arqctl serve
      all proxies of this machine, on http://127.0.0.1:8080
  arqctl serve 1 ssh:edge1/2 --channel-name 1=News
      these two, one of them on another machine
  arqctl serve --listen 0.0.0.0:8080 --allow-host control.example.net
      for the whole network, also under that name
  arqctl serve --allow-control
      add, delete and impair from the page, with the token that it names
)";

// One second passes between questions: who takes longer is as good as gone.
constexpr int64_t SERVE_PATIENCE_US = 3'000'000;

bool AddNames(
    const std::vector<std::string>& texts, std::map<std::string, std::string>& names, std::string& wrong)
{
    for (const std::string& text : texts) {
        const size_t equals = text.rfind('=');
        Target target;
        wrong = text;
        if (equals == std::string::npos || equals + 1 == text.size()
            || !ParseTarget(text.substr(0, equals), target))
            return false;
        names[target.Name()] = text.substr(equals + 1);
    }
    return true;
}

// What is read as text at first.
struct ServeWords {
    ServeOptions options;
    std::vector<std::string> targets;
    std::vector<std::string> names;
    bool isOneGiven = false; // -I, --socket or --via
};

// What no start with other circumstances would mend.
Trouble WrongUse(const ServeOptions& options)
{
    if (!HttpServer::IsAddress(options.listen))
        return { "'" + options.listen + "' is not ADDRESS:PORT",
            "choose another one with --listen ADDRESS:PORT" };
    if (!options.reports.empty() && options.reports != "off" && !ReportSocket::IsAddress(options.reports))
        return { "'" + options.reports + "' is not ADDRESS:PORT",
            "choose another one with --reports ADDRESS:PORT, or take none with --reports off" };
    for (const std::string& name : options.allowedHosts) {
        if (!HostList::IsHost(name))
            return { "'" + name + "' is no name of a host",
                "write it as browsers send it: --allow-host wall.example.net" };
    }
    if (!options.tokenFile.empty() && !options.isControlAllowed)
        return { "--token-file is for --allow-control", "add --allow-control, or leave --token-file out" };
    return {};
}

// For people: two lines; the token itself is in its file only.
void Announce(const Session& session, const std::string& url, const std::string& tokenFile)
{
    nlohmann::ordered_json object { { "url", url } };
    if (!tokenFile.empty())
        object["token_file"] = tokenFile;
    if (session.isJson)
        fmt::print("{}\n", object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
    else
        fmt::print("{}\n{}", url, tokenFile.empty() ? "" : "The token for control is in " + tokenFile + "\n");
    (void)fflush(stdout);
}

ExitStatus RunServe(const Session& session, ServeWords& words)
{
    const ExitStatus read = ReadTargets(session, words.targets, words.isOneGiven, words.options.targets);
    if (read != ExitStatus::Good)
        return read;
    if (const Trouble trouble = WrongUse(words.options); !trouble.problem.empty())
        return Fail(session, ExitStatus::Usage, trouble.problem, trouble.advice);
    std::string wrong;
    if (!AddNames(words.names, words.options.channelNames, wrong))
        return Fail(
            session, ExitStatus::Usage, "'" + wrong + "' names no channel", "write --channel-name 2=News");
    words.options.started
        = [&session](const std::string& url, const std::string& file) { Announce(session, url, file); };
    words.options.patienceUs = session.isPatienceGiven ? session.patienceUs : SERVE_PATIENCE_US;
    const ServeEnd end = Serve(words.options);
    return end.problem.empty() ? ExitStatus::Good
                               : Fail(session, ExitStatus::NoStart, end.problem, end.advice);
}

} // namespace

void AddServeCommand(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("serve", "a web page of channels, and metrics");
    const auto words = std::make_shared<ServeWords>();
    command->add_option("--listen", words->options.listen, "address and port of the page [127.0.0.1:8080]")
        ->type_name("ADDRESS:PORT");
    command
        ->add_option(
            "--allow-host", words->options.allowedHosts, "another name under which the page is asked for")
        ->type_name("NAME")
        ->allow_extra_args(false);
    command->add_flag("--allow-control", words->options.isControlAllowed,
        "add, delete and impair through the page, with a token");
    command
        ->add_option(
            "--token-file", words->options.tokenFile, "the token, 16 characters at least [one is made]")
        ->type_name("FILE");
    command
        ->add_option(
            "--reports", words->options.reports, "where receivers report to, by UDP, or off [as --listen]")
        ->type_name("ADDRESS:PORT");
    command->add_option("--channel-name", words->names, "2=News: what a channel is called")
        ->type_name("TARGET=NAME")
        ->allow_extra_args(false);
    command->add_option("targets", words->targets, "2, ssh:HOST/2 or /path/of/socket [all that run here]")
        ->type_name("TARGET");
    command->footer(SERVE_EXAMPLES);
    command->callback([&app, &session, words] {
        words->isOneGiven = IsProxyGiven(app);
        session.run = [&session, words] { return RunServe(session, *words); };
    });
}

} // namespace arqctl
