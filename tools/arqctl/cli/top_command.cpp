#include <memory>
#include <string>
#include <vector>

#include "arqctl/cli/commands.h"
#include "arqctl/cli/common_options.h"
#include "arqctl/top/top.h"

namespace arqctl {

namespace {

// What the command line says, as text.
struct TopWords {
    std::vector<std::string> targets;
    bool isPlain = false;
    bool isWithoutColour = false;
    bool isOneGiven = false; // -I, --socket or --via
};

ExitStatus RunTopCommand(const Session& session, const TopWords& words)
{
    top::TopOptions options;
    if (session.isJson)
        return Fail(session, ExitStatus::Usage, "the terminal view has no JSON",
            "use 'arqctl stats --watch 1s --json', or the API of 'arqctl serve'");
    const ExitStatus read = ReadTargets(session, words.targets, words.isOneGiven, options.targets);
    if (read != ExitStatus::Good)
        return read;
    options.isPlain = words.isPlain;
    options.wantsColour = !words.isWithoutColour;
    options.patienceUs = session.patienceUs;
    const top::TopEnd end = top::RunTop(options);
    return end.problem.empty() ? ExitStatus::Good
                               : Fail(session, ExitStatus::NoStart, end.problem, end.advice);
}

} // namespace

void AddTopCommand(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("top", "a live view of proxies in the terminal");
    const auto words = std::make_shared<TopWords>();
    command->add_option("targets", words->targets, "2, ssh:HOST/2 or /path/of/socket [all that run here]")
        ->type_name("TARGET");
    command->add_flag("--plain", words->isPlain, "lines of text, one a second and proxy, even on a terminal");
    command->add_flag("--no-color", words->isWithoutColour, "no colours (NO_COLOR in the environment, too)");
    command->footer("Examples:\n"
                    "  arqctl top\n"
                    "  arqctl top 1 2 ssh:edge1/1\n"
                    "  arqctl top --plain | grep GONE\n\n"
                    "Keys: up/down select, a add, d delete, i impair on/off, r reset, ? help,\n"
                    "q quit. What changes something says what will happen and asks first. Where\n"
                    "standard output is no terminal there are plain lines.\n");
    command->callback([&app, &session, words] {
        words->isOneGiven = IsProxyGiven(app);
        session.run = [&session, words] { return RunTopCommand(session, *words); };
    });
}

} // namespace arqctl
