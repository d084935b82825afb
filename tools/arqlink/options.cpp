#include "arqlink/options.h"

#include "arqlink/core/settings_text.h"
#include "arqlink/texts.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <string_view>

namespace arqlink {

namespace {

constexpr size_t HELP_COLUMNS = 66; // of the explanation beside an option; no word of ours is longer

constexpr char INTRODUCTION[]
    = "A bad line in a box: forwards UDP both ways between clients and targets and loses, delays, reorders,\n"
      "doubles, changes and limits what passes, the same way each time for the same seed.";

constexpr char EPILOGUE[]
    = "Each setting of the line is for both directions; with down- or up- before its name (--down-loss 5%) it is for one:\n"
      "down is from TARGET to the clients, up is from the clients to TARGET.\n"
      "\n"
      "Examples:\n"
      "  A receiver's line to a proxy with ping port 10000 and request port 7020, 5 % lost each way, 20 ms long;\n"
      "  the receiver is pointed at 127.0.0.1, ports 11000 and 17020:\n"
      "    arqlink --loss 5% --delay 20ms 127.0.0.1:11000=10.0.0.1:10000 127.0.0.1:17020=10.0.0.1:7020\n"
      "  A source's line to the proxy's input, with bursts of 10 packets (mean), a burst in 1000 packets:\n"
      "    arqlink --up-burst 0.1%,10% 127.0.0.1:5001=127.0.0.1:5000\n"
      "  A run that changes over time and tells what became of every packet:\n"
      "    arqlink --script evening.txt --seed 7 --json --log-fates fates.jsonl 127.0.0.1:11000=10.0.0.1:10000\n"
      "    with evening.txt:\n"
      "      0s   both clean delay 20ms\n"
      "      8s   both loss 5%\n"
      "      16s  down blackout on\n"
      "      16.2s down blackout off loss 0\n"
      "      30s  end\n"
      "\n"
      "Exit status: 0 done, 1 the system refused an address or a file, 2 wrong command line or script.";

// An option with a value that is read later.
struct TextOption {
    const char* name;
    const char* value;
    const char* group;
    const char* meaning;
    std::string Texts::*text;
};

constexpr TextOption TEXT_OPTIONS[] = {
    { "--seed", "NUMBER", "The run", "The same seed and packets have the same fates (1)", &Texts::seed },
    { "--script", "FILE", "The run", "Change the line over time as this file says (see docs/arqlink.md)",
        &Texts::script },
    { "--duration", "TIME", "The run", "End after this time", &Texts::duration },
    { "--clients", "NUMBER", "Clients", "So many at once (256); datagrams of more are refused",
        &Texts::clients },
    { "--idle", "TIME", "Clients", "Forget a client that has sent nothing for this long (60s)",
        &Texts::idle },
    { "--source", "ADDRESS", "Clients", "Send to TARGET from this address, for all clients", &Texts::source },
    { "--source-pool", "RANGE", "Clients",
        "Send to TARGET from an address of this range, for each client its own: 127.9.0.0/24",
        &Texts::sourcePool },
    { "--memory", "SIZE", "Clients", "So much may be under way for all clients (256M); more is lost",
        &Texts::memory },
    { "--interval", "TIME", "Output", "Time between two reports (1s); 0: only the last one",
        &Texts::interval },
};

// The formatter breaks no lines by itself.
std::string Wrapped(std::string_view text)
{
    std::string wrapped;
    while (text.size() > HELP_COLUMNS) {
        const size_t blank = text.rfind(' ', HELP_COLUMNS);
        wrapped += std::string(text.substr(0, blank)) + "\n";
        text.remove_prefix(blank + 1);
    }
    return wrapped + std::string(text);
}

// "--loss" shows up in the help; "--down-loss" and "--up-loss" are explained below it.
void AddSettings(CLI::App& app, Texts& texts)
{
    for (const char* direction : DIRECTIONS) {
        for (const SettingName& setting : SettingNames()) {
            const std::string name = direction + std::string(setting.name);
            app.add_option("--" + name, texts.settings[name], Wrapped(setting.meaning))
                ->type_name(std::string(setting.value))
                ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
                ->group(*direction == '\0' ? "The line" : "");
        }
    }
}

void AddOptions(CLI::App& app, Options& options, Texts& texts)
{
    app.add_option("pairs", texts.pairs,
           Wrapped(
               "Where clients send to, and where it goes on to, each HOST:PORT; with port 0 for LISTEN the system "
               "chooses one, and it is printed"))
        ->type_name("LISTEN=TARGET");
    AddSettings(app, texts);
    for (const TextOption& option : TEXT_OPTIONS)
        app.add_option(option.name, texts.*option.text, Wrapped(option.meaning))
            ->type_name(option.value)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
            ->group(option.group);
    app.allow_config_extras(CLI::config_extras_mode::error); // a slip in the file is no less a slip
    app.set_config("--config", "", "Read options from this file, a line each: loss=5%")
        ->type_name("FILE")
        ->group("The run");
    app.add_flag(
           "--alike", options.relay.bAlike, "Give every client's line the same fates; else each has its own")
        ->group("Clients");
    app.add_flag("--json", options.bJson, "Print JSON, an object a line")->group("Output");
    app.add_flag("--quiet", options.bQuiet, "Print only failures")->group("Output");
    app.add_option("--log-fates", options.fatesPath, "Write what became of each packet, a JSON object a line")
        ->type_name("FILE")
        ->group("Output");
}

bool ReordersNothing(const Settings& settings)
{
    return settings.reorder > 0 && settings.jitterUs == 0;
}

// --help and --version end with 0, everything else that the library reports is a wrong command line.
Parsed Stop(CLI::App& app, const CLI::ParseError& error)
{
    if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::Success))
        return { false, EXIT_USAGE, error.what() };
    (void)app.exit(error);
    return { false, EXIT_DONE, "" };
}

} // namespace

Parsed ParseOptions(int argc, char** argv, Options& options)
{
    CLI::App app(INTRODUCTION, "arqlink");
    Texts texts;
    app.set_version_flag("--version", "arqlink " TX_PROXY_VERSION, "Print the version and exit");
    app.set_help_flag("--help,-h", "Print this and exit");
    app.footer(EPILOGUE);
    app.get_formatter()->column_width(36);
    AddOptions(app, options, texts);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // A wrong command line may have --json on it all the same.
        options.bJson = options.bJson || app.get_option("--json")->count() > 0;
        return Stop(app, error);
    }
    std::string problem;
    if (!ReadTexts(texts, options, problem))
        return { false, EXIT_USAGE, problem };
    if (texts.script.empty() && (ReordersNothing(options.relay.down) || ReordersNothing(options.relay.up)))
        return { false, EXIT_USAGE,
            "--reorder does nothing without --jitter, which is what changes the order" };
    return { true, EXIT_DONE, "" };
}

} // namespace arqlink
