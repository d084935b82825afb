#include <fmt/format.h>

#include <charconv>
#include <memory>
#include <nlohmann/json.hpp>

#include "arqctl/cli/commands.h"
#include "arqctl/core/loss_texts.h"
#include "arqctl/proxy/impair_switch.h"
#include "common/quantity.h"

namespace arqctl {

namespace {

struct ImpairChoice {
    int32_t mode = 1;
    int32_t drop = 1;
    std::string dist = "100";
    CLI::Option* modeOption = nullptr;
    CLI::Option* dropOption = nullptr;
    CLI::Option* distOption = nullptr;
    bool isBlind = false;
    int64_t longestUs = LossLook().longestUs;
};

bool ParsePackets(std::string_view text, int32_t& packets)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), packets);
    return error == std::errc {} && end == text.data() + text.size() && packets > 0;
}

// "N" or "MIN-MAX".
bool ParseDistance(const std::string& text, LossSettings& settings)
{
    const size_t dash = text.find('-');
    if (!ParsePackets(std::string_view(text).substr(0, dash), settings.minDist))
        return false;
    settings.maxDist = settings.minDist;
    return dash == std::string::npos
        || ParsePackets(std::string_view(text).substr(dash + 1), settings.maxDist);
}

bool IsAnyGiven(const ImpairChoice& choice)
{
    return choice.modeOption->count() + choice.dropOption->count() + choice.distOption->count() > 0;
}

// What is wrong with the options; "" when they make settings.
std::string MakeSettings(const ImpairChoice& choice, LossSettings& settings)
{
    const bool isRange = choice.dist.find('-') != std::string::npos;
    if (!ParseDistance(choice.dist, settings))
        return "--dist '" + choice.dist + "' is neither a number of packets nor two with a dash, as 100-200";
    settings.mode = choice.modeOption->count() == 0 && isRange ? 2 : choice.mode;
    if (settings.mode == 1 && isRange)
        return "--mode 1 has gaps of one length: --dist is one number there";
    if (settings.mode == 2 && choice.distOption->count() == 0)
        settings.maxDist = LossSettings().maxDist;
    settings.minDrop = choice.drop;
    settings.maxDrop = choice.drop;
    return LossSettingsProblem(settings);
}

std::string_view ImpairResultName(ImpairResult result)
{
    switch (result) {
    case ImpairResult::Done:
        return "done";
    case ImpairResult::AlreadySo:
        return "already";
    case ImpairResult::Refused:
        return "refused";
    case ImpairResult::Unconfirmed:
        return "unconfirmed";
    case ImpairResult::NotDone:
    case ImpairResult::NoAnswer:
    case ImpairResult::Failed:
        break;
    }
    return "not done";
}

std::string_view LossStateName(LossState state)
{
    return state == LossState::On ? "on" : state == LossState::Off ? "off" : "unknown";
}

ExitStatus ImpairStatusOf(ImpairResult result)
{
    switch (result) {
    case ImpairResult::Done:
        return ExitStatus::Good;
    case ImpairResult::AlreadySo:
        return ExitStatus::AlreadySo;
    case ImpairResult::Failed:
        return ExitStatus::NoStart;
    case ImpairResult::Refused:
    case ImpairResult::Unconfirmed:
    case ImpairResult::NotDone:
    case ImpairResult::NoAnswer:
        break;
    }
    return ExitStatus::NotDone;
}

nlohmann::ordered_json LossSettingsObject(const LossSettings& settings)
{
    return { { "mode", settings.mode }, { "min_drop", settings.minDrop }, { "max_drop", settings.maxDrop },
        { "min_dist", settings.minDist }, { "max_dist", settings.maxDist } };
}

void PrintImpairObject(const ImpairOutcome& outcome, std::string_view result)
{
    nlohmann::ordered_json object;
    if (!result.empty())
        object["result"] = result;
    object["impairment"] = LossStateName(outcome.finding.state);
    object["text"] = outcome.text;
    if (!outcome.advice.empty())
        object["advice"] = outcome.advice;
    object["packets"] = outcome.finding.packets;
    object["withheld"] = outcome.finding.withheld;
    object["settings"] = LossSettingsObject(outcome.settings);
    fmt::print("{}\n", object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

// What was asked for is not so, or not known to be: on standard error too, as every failure.
ExitStatus ReportImpair(
    const Session& session, const ImpairOutcome& outcome, std::string_view result, ExitStatus status)
{
    const bool isGood = status == ExitStatus::Good || status == ExitStatus::AlreadySo;
    if (session.isJson)
        PrintImpairObject(outcome, result);
    if (!isGood)
        fmt::print(stderr, "arqctl: {}\n{}\n", outcome.text, outcome.advice);
    else if (!session.isJson)
        fmt::print("{}\n", outcome.text);
    if (isGood && !session.isJson && outcome.finding.state == LossState::On)
        fmt::print("settings: {}\n", LossSettingsText(outcome.settings));
    return status;
}

// Files and place of the session's proxy; null when it cannot be reached or its files are not known.
struct ImpairPlace {
    std::unique_ptr<ImpairFiles> files;
    LossLook look;
};

ExitStatus FindImpairPlace(const Session& session, const ImpairChoice& choice, ImpairPlace& place)
{
    Statistics statistics;
    const Failure failure = AskStatistics(session, statistics); // says best what is wrong with a socket
    if (failure != Failure::None)
        return FailedAnswer(session, failure);
    const auto instance = InstanceOf(session.target, session.patienceUs);
    if (!instance)
        return Fail(session, ExitStatus::NotDone,
            "which instance answers on " + session.target.ControlPath() + " is not known",
            "name it by its number, with -I");
    place.files = MakeImpairFiles(session.target, *instance);
    place.look.socketPath = session.tunnels->PathOf(session.target);
    place.look.isRemote = session.target.IsRemote();
    place.look.answerPatienceUs = session.patienceUs;
    place.look.longestUs = choice.longestUs;
    return ExitStatus::Good;
}

ExitStatus SwitchImpair(const Session& session, const ImpairChoice& choice, bool isOn)
{
    ImpairOrder order { .isOn = isOn, .settings = {}, .isBlind = choice.isBlind };
    if (isOn && IsAnyGiven(choice)) {
        const std::string problem = MakeSettings(choice, order.settings.emplace());
        if (!problem.empty())
            return Fail(session, ExitStatus::Usage, problem, "see 'arqctl impair on --help'");
    }
    if (session.isPatienceGiven)
        order.takePatienceUs = session.patienceUs;
    ImpairPlace place;
    const ExitStatus found = FindImpairPlace(session, choice, place);
    if (found != ExitStatus::Good)
        return found;
    const ImpairOutcome outcome = SwitchLoss(*place.files, place.look, order);
    if (outcome.result == ImpairResult::NoAnswer)
        return FailedAnswer(session, outcome.failure);
    return ReportImpair(session, outcome, ImpairResultName(outcome.result), ImpairStatusOf(outcome.result));
}

ExitStatus ImpairStatus(const Session& session, const ImpairChoice& choice)
{
    ImpairPlace place;
    const ExitStatus found = FindImpairPlace(session, choice, place);
    if (found != ExitStatus::Good)
        return found;
    const ImpairOutcome outcome = FindLoss(*place.files, place.look);
    if (outcome.failure != Failure::None)
        return FailedAnswer(session, outcome.failure);
    const bool isKnown = outcome.finding.state != LossState::Unknown;
    return ReportImpair(session, outcome, "", isKnown ? ExitStatus::Good : ExitStatus::NotDone);
}

void AddLookOption(CLI::App& command, ImpairChoice& choice)
{
    command
        .add_option_function<std::string>(
            "--look",
            [&choice](const std::string& text) {
                if (!common::ParseDuration(text, choice.longestUs) || choice.longestUs <= 0)
                    throw CLI::ValidationError("--look", "'" + text + "' is not a time; write 10s or 1min");
            },
            "how long its counts may be looked at, before and after [10s]")
        ->type_name("TIME");
}

void AddSettingOptions(CLI::App& on, ImpairChoice& choice)
{
    choice.modeOption = on.add_option("--mode", choice.mode, "1: gaps of one length [1], 2: random ones")
                            ->type_name("MODE");
    choice.dropOption
        = on.add_option("--drop", choice.drop, "packets withheld in a row [1]")->type_name("COUNT");
    choice.distOption = on.add_option("--dist", choice.dist,
                              "packets that pass between two bursts [100]; MIN-MAX for mode 2")
                            ->type_name("COUNT");
    on.footer("Examples:\n"
              "  arqctl impair on --drop 2 --dist 50\n"
              "  arqctl impair on --dist 100-200\n\n"
              "Without --mode, --drop and --dist the settings file is used as it is.\n");
}

} // namespace

void AddImpairCommand(CLI::App& app, Session& session)
{
    auto choice = std::make_shared<ImpairChoice>();
    CLI::App* command
        = app.add_subcommand("impair", "deliberate loss: switches it, and finds out whether it is on");
    command->footer("Examples:\n"
                    "  arqctl impair on --drop 1 --dist 100\n"
                    "  arqctl impair status\n"
                    "  arqctl impair off\n\n"
                    "The proxy only flips, and does not say which way: its counts are looked at\n"
                    "before and after. 'arqctl impair on --help' shows the settings.\n");
    command->require_subcommand(1);
    command->fallthrough();
    CLI::App* on = command->add_subcommand("on", "withhold packets, with these settings");
    CLI::App* off = command->add_subcommand("off", "withhold none");
    CLI::App* status
        = command->add_subcommand("status", "find out by the counts whether packets are withheld");
    AddSettingOptions(*on, *choice);
    for (CLI::App* one : { on, off, status }) {
        one->fallthrough();
        AddLookOption(*one, *choice);
    }
    off->footer("Examples:\n  arqctl impair off\n");
    status->footer("Examples:\n  arqctl impair status --json\n");
    for (CLI::App* one : { on, off })
        one->add_flag("--blind", choice->isBlind, "switch once even when it cannot be known which way");
    on->callback([&session, choice] {
        session.run = [&session, choice] { return SwitchImpair(session, *choice, true); };
    });
    off->callback([&session, choice] {
        session.run = [&session, choice] { return SwitchImpair(session, *choice, false); };
    });
    status->callback(
        [&session, choice] { session.run = [&session, choice] { return ImpairStatus(session, *choice); }; });
}

} // namespace arqctl
