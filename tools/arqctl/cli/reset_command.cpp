#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "arqctl/cli/commands.h"

namespace arqctl {

namespace {

struct Reset {
    const char* name;
    const char* request;
    const char* reply;
    const char* text;
};

constexpr Reset RESETS[] = {
    { "rx", "RxStatClear", "OK: Rx Stat Reset", "the counts of the input begin again at 0" },
    { "tx", "TxStatClear", "OK: Tx Stat Reset", "the counts of the output begin again at 0" },
    { "all", "StatClear", "OK: Stat Reset", "all counts begin again at 0" },
};

const Reset* FindReset(const std::string& name)
{
    for (const Reset& reset : RESETS)
        if (name == reset.name)
            return &reset;
    return nullptr;
}

ExitStatus CarryOutReset(const Session& session, const Reset& reset)
{
    const Failure failure = AskFor(session, reset.request, reset.reply);
    if (failure != Failure::None)
        return FailedAnswer(session, failure);
    if (session.isJson)
        fmt::print("{}\n", nlohmann::ordered_json { { "reset", reset.name }, { "result", "done" } }.dump());
    else
        fmt::print("{}\n", reset.text);
    return ExitStatus::Good;
}

} // namespace

void AddResetCommand(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("reset", "lets a proxy's counts begin again at 0");
    const auto chosen = std::make_shared<const Reset*>();
    command
        ->add_option_function<std::string>(
            "COUNTS",
            [chosen](const std::string& name) {
                *chosen = FindReset(name);
                if (!*chosen)
                    throw CLI::ValidationError("reset", "'" + Printable(name) + "' is not rx, tx or all");
            },
            "rx: input packets and loss; tx: sent packets and their rate; all: both")
        ->type_name("rx|tx|all")
        ->required();
    command->footer("Examples:\n"
                    "  arqctl reset rx\n\n"
                    "Whoever else reads these counts sees them fall. 'arqctl stats --watch' shows\n"
                    "differences without a reset.\n");
    command->callback([&session, chosen] {
        session.run = [&session, chosen] { return CarryOutReset(session, **chosen); };
    });
}

} // namespace arqctl
