#include "arqctl/cli/common_options.h"

#include <string_view>

#include "common/clock.h"
#include "common/quantity.h"
#include "common_cli/help_formatter.h"

namespace arqctl {

namespace {

constexpr auto COMMON_OPTIONS_EXAMPLES = R"(Examples:
  arqctl list
      the receivers of the proxy with -I 1
  arqctl -I 2 add 10.0.0.1
      one more for the proxy with -I 2; the status says whether it is there now
  arqctl stats --watch 1s
      rates and counts, a line a second
  arqctl --via ssh:edge1 stats --json
      the same of a proxy on another machine, for a script
  arqctl instances
      which proxies run here
  arqctl doctor
      what is wrong with this machine's settings, and how to mend it

Exit status: 0 good, 1 not done or a fault found, 2 wrong usage, 3 no proxy or
no right to it, 4 no answer or a strange one, 5 something is missing here,
6 nothing to do: it was so already, or only warnings.
)";

constexpr int64_t LEAST_TIMEOUT_US = common::US_PER_MS;
constexpr int64_t MOST_TIMEOUT_US = 3600 * common::US_PER_SECOND;

[[noreturn]] void RefuseValue(const std::string& option, const std::string& text, const std::string& wanted)
{
    throw CLI::ValidationError(option, "'" + text + "' is not " + wanted);
}

void SetInstance(Session& session, const std::string& text)
{
    Target read;
    if (!ParseTarget(text, read) || read.IsRemote() || !read.socketPath.empty())
        RefuseValue("-I", text, "an instance number; write it as behind the proxy's -I");
    session.target.instance = read.instance;
}

// "ssh:HOST", or with the instance's number behind a slash.
void SetVia(Session& session, const std::string& text)
{
    constexpr std::string_view SSH = "ssh:";
    Target read;
    if (ParseTarget(text, read) && read.IsRemote()) {
        session.target.via = read.via;
        session.target.instance = read.instance;
    } else if (text.starts_with(SSH) && IsSshHost(std::string_view(text).substr(SSH.size()))) {
        session.target.via = text.substr(SSH.size());
    } else {
        RefuseValue("--via", text, "another machine; write ssh:HOST, ssh:USER@HOST or ssh:HOST/INSTANCE");
    }
}

void SetTimeout(Session& session, const std::string& text)
{
    int64_t timeUs = 0;
    if (!common::ParseDuration(text, timeUs) || timeUs < LEAST_TIMEOUT_US || timeUs > MOST_TIMEOUT_US)
        RefuseValue("--timeout", text, "a time from 1ms to 1h; write 5s or 500ms");
    session.patienceUs = timeUs;
    session.isPatienceGiven = true;
}

using Set = void (*)(Session&, const std::string&);

CLI::Option* AddText(
    CLI::App& app, Session& session, const char* name, Set set, const char* type, const char* text)
{
    const auto take = [&session, set](const std::string& value) { set(session, value); };
    return app.add_option_function<std::string>(name, take, text)->type_name(type);
}

// Of a command with commands of its own, none of which was given.
std::string MissingKinds(const CLI::App& app)
{
    const std::vector<CLI::App*> given = app.get_subcommands();
    if (given.empty() || !given.front()->get_subcommands().empty())
        return "";
    std::string text;
    for (const CLI::App* kind : given.front()->get_subcommands([](const CLI::App*) { return true; }))
        text += (text.empty() ? "" : ", ") + kind->get_name();
    return text.empty() ? "" : given.front()->get_name() + ": one of these is missing: " + text;
}

} // namespace

void AddCommonOptions(CLI::App& app, Session& session)
{
    app.formatter(std::make_shared<common::HelpFormatter>(
        std::vector<std::string> { "arqctl [options] COMMAND [arguments]", "arqctl COMMAND --help" }));
    app.set_help_flag("-h,--help", "show this and end");
    AddText(app, session, "-I,--instance", SetInstance, "NUMBER", "the proxy's instance number, its -I [1]");
    app.add_option("--socket", session.target.socketPath, "the proxy's control socket by its path")
        ->type_name("PATH");
    AddText(app, session, "--via", SetVia, "ssh:HOST[/NUMBER]",
        "a proxy on another machine, by ssh; ARQCTL_SSH may hold the command with options, as 'ssh -p 2222'");
    AddText(app, session, "--timeout", SetTimeout, "TIME", "how long a proxy may take for an answer [5s]");
    app.add_flag("--json", session.isJson, "JSON on standard output, an object a line, failures too");
    app.set_version_flag("--version", "arqctl " TX_PROXY_VERSION, "show the version and end");
    app.set_config("--config", "", "read options from FILE, as lines like instance=2")->type_name("FILE");
    app.allow_config_extras(CLI::config_extras_mode::error); // a name that is misspelt is no setting
    app.fallthrough();
    app.require_subcommand(0, 1); // none is said in words of our own
}

void FinishHelp(CLI::App& app)
{
    app.footer(COMMON_OPTIONS_EXAMPLES); // not sooner: commands take over their program's
    for (CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
        command->group("Commands");
}

bool IsProxyGiven(const CLI::App& app)
{
    return app.count("-I") + app.count("--socket") + app.count("--via") > 0;
}

std::string Contradiction(const CLI::App& app)
{
    if (app.count("--instance") > 0 && app.count("--socket") > 0)
        return "-I and --socket are two proxies; name one";
    if (app.get_subcommands().empty())
        return "no command was given";
    return "";
}

std::string UsageProblem(const CLI::App& app, const CLI::ParseError& error)
{
    const std::vector<std::string> left = app.remaining();
    if (app.get_subcommands().empty() && !left.empty() && !left.front().starts_with('-'))
        return "there is no command '" + Printable(left.front()) + "'";
    if (const std::string kinds = MissingKinds(app); error.get_name() == "RequiredError" && !kinds.empty())
        return kinds;
    std::string text = error.what();
    constexpr std::string_view NO_SETTING = "INI was not able to parse ";
    if (error.get_name() == "ConfigError" && text.starts_with(NO_SETTING))
        return "--config: there is no option '" + Printable(text.substr(NO_SETTING.size())) + "'";
    while (text.ends_with('\n'))
        text.pop_back();
    return text;
}

} // namespace arqctl
