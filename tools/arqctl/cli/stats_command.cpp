#include <chrono>
#include <memory>

#include "arqctl/cli/commands.h"
#include "arqctl/cli/standard_output.h"
#include "arqctl/cli/stats_forms.h"
#include "arqctl/cli/stats_watch.h"
#include "common/clock.h"
#include "common/quantity.h"

namespace arqctl {

namespace {

constexpr int64_t SHORTEST_PERIOD_US = 100'000; // the proxy serves one client at a time
constexpr int64_t LONGEST_PERIOD_US = 86'400'000'000;

struct StatsChoice {
    WatchSettings watch;
    bool isWatched = false;
    bool isCsv = false;
    CLI::Option* count = nullptr;
    CLI::Option* failOnDown = nullptr;
};

std::string OneReading(const Sample& sample, StatsForm form)
{
    switch (form) {
    case StatsForm::People:
        return ReadingText(sample);
    case StatsForm::Csv:
        return CsvHeading() + CsvLine(sample);
    case StatsForm::Json:
        return JsonLine(sample);
    }
    return "";
}

ExitStatus ReadOnce(const Session& session, StatsForm form)
{
    Statistics statistics;
    const Failure failure = AskStatistics(session, statistics);
    if (failure != Failure::None)
        return FailedAnswer(session, failure);
    Meter meter;
    meter.Take(statistics, common::NowUs(), 0);
    const std::chrono::duration<double> unixTime = std::chrono::system_clock::now().time_since_epoch();
    const Sample sample { .now = meter.Now(), .unixTime = unixTime.count(), .before = {} };
    return EndOfOutput(session, WriteOut(OneReading(sample, form)));
}

ExitStatus Stats(const Session& session, StatsChoice& choice)
{
    if (choice.isCsv && session.isJson)
        return Fail(session, ExitStatus::Usage, "--csv and --json do not go together", "choose one of them");
    if (!choice.isWatched && (choice.count->count() > 0 || choice.failOnDown->count() > 0))
        return Fail(session, ExitStatus::Usage, "--count and --fail-on-down are for a watch",
            "write --watch 1s, too");
    if (choice.isCsv || session.isJson)
        choice.watch.form = choice.isCsv ? StatsForm::Csv : StatsForm::Json;
    return choice.isWatched ? WatchStats(session, choice.watch) : ReadOnce(session, choice.watch.form);
}

void TakePeriod(const std::string& text, StatsChoice& choice)
{
    int64_t periodUs = choice.watch.periodUs;
    if (!text.empty() && !common::ParseDuration(text, periodUs))
        throw CLI::ValidationError("--watch", "'" + text + "' is not a time; write 1s or 500ms");
    if (periodUs < SHORTEST_PERIOD_US || periodUs > LONGEST_PERIOD_US)
        throw CLI::ValidationError("--watch", "'" + text + "' is not between 100ms and 24h");
    choice.watch.periodUs = periodUs;
    choice.isWatched = true;
}

} // namespace

void AddStatsCommand(CLI::App& app, Session& session)
{
    auto choice = std::make_shared<StatsChoice>();
    CLI::App* command = app.add_subcommand("stats", "what a proxy counts, once or again and again");
    command->add_flag("--csv", choice->isCsv, "comma-separated values, a heading first");
    command
        ->add_option_function<std::string>(
            "--watch", [choice](const std::string& text) { TakePeriod(text, *choice); },
            "a line each TIME [1s], with rates, until it is ended")
        ->type_name("TIME")
        ->expected(0, 1);
    choice->count
        = command->add_option("--count", choice->watch.count, "with --watch: end after so many questions")
              ->check(CLI::Range(1, 1'000'000'000))
              ->type_name("COUNT");
    choice->failOnDown = command->add_flag(
        "--fail-on-down", choice->watch.endsWhenDown, "with --watch: end when the proxy does not answer");
    command->footer("Examples:\n"
                    "  arqctl stats\n"
                    "  arqctl stats --watch 1s\n"
                    "  arqctl stats --watch 10s --csv >figures.csv\n\n"
                    "A watch resets nothing. 'beyond' and 'withheld' are estimated.\n");
    command->callback(
        [&session, choice] { session.run = [&session, choice] { return Stats(session, *choice); }; });
}

} // namespace arqctl
