#include <charconv>
#include <cmath>
#include <memory>

#include "arqctl/cli/calc_report.h"
#include "arqctl/cli/commands.h"
#include "arqctl/cli/standard_output.h"
#include "common/quantity.h"

namespace arqctl {

namespace {

constexpr int64_t MOST_BIT_RATE = 10'000'000'000;
constexpr int64_t MOST_PAYLOAD = 1'524; // with an RTP header what a buffer of the proxy holds
constexpr int64_t PROXY_HOLD_OFF_US = 100'000;
constexpr double LEAST_TARGET = 1e-15;

struct CalcOptions {
    CalcInput input;
    bool hasLossBack = false;
};

using Reader = bool (*)(std::string_view text, CalcOptions& options);

bool TakeTime(std::string_view text, int64_t least, int64_t most, int64_t& timeUs)
{
    int64_t read = 0;
    if (!common::ParseDuration(text, read) || read < least || read > most)
        return false;
    timeUs = read;
    return true;
}

bool TakeLoss(std::string_view text, double& loss)
{
    double read = 0;
    if (!common::ParseRatio(text, read) || read > MOST_LOSS)
        return false;
    loss = read;
    return true;
}

// A share, and such small ones as people write with an exponent.
bool TakeTarget(std::string_view text, double& target)
{
    double read = 0;
    if (!common::ParseRatio(text, read)) {
        const char* end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data(), end, read);
        if (error != std::errc() || stop != end)
            return false;
    }
    if (!(read >= LEAST_TARGET && read < 1)) // neither is what is no number
        return false;
    target = read;
    return true;
}

bool TakeCount(std::string_view text, int64_t most, int64_t& count)
{
    int64_t read = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, read);
    if (error != std::errc() || stop != end || read < 1 || read > most)
        return false;
    count = read;
    return true;
}

struct CalcOption {
    const char* name;
    const char* value;
    const char* meaning;
    const char* expected; // behind "'...' is not "
    Reader read;
    bool isNeeded = false;
};

constexpr CalcOption CALC_OPTIONS[] = {
    { "--rate", "RATE", "the stream's payload", "a bit rate from 1k to 10G",
        [](std::string_view text, CalcOptions& options) {
            int64_t read = 0;
            if (!common::ParseBitRate(text, read) || read < 1000 || read > MOST_BIT_RATE)
                return false;
            options.input.bitRate = read;
            return true;
        },
        true },
    { "--loss", "SHARE", "of the packets, lost on the way to a receiver, each by itself",
        "a share such as 2%, at most 50%",
        [](std::string_view text, CalcOptions& options) { return TakeLoss(text, options.input.lossDown); },
        true },
    { "--round-trip", "TIME", "to a receiver and back, as the slowest packets have it",
        "a time such as 40ms, at most 30s",
        [](std::string_view text, CalcOptions& options) {
            return TakeTime(text, 0, MOST_LATENCY_US / 2, options.input.roundTripUs);
        },
        true },
    { "--receivers", "COUNT", "of one proxy [1]", "a number from 1 to 1000000",
        [](std::string_view text, CalcOptions& options) {
            return TakeCount(text, 1'000'000, options.input.receivers);
        } },
    { "--loss-back", "SHARE", "of the requests, lost on the way back [as --loss]",
        "a share such as 2%, at most 50%",
        [](std::string_view text, CalcOptions& options) {
            options.hasLossBack = TakeLoss(text, options.input.lossUp);
            return options.hasLossBack;
        } },
    { "--burst", "TIME", "the longest outage that shall do no harm", "a time such as 200ms, at most 30s",
        [](std::string_view text, CalcOptions& options) {
            return TakeTime(text, 0, MOST_LATENCY_US / 2, options.input.outageUs);
        } },
    { "--payload", "BYTES", "of a packet, without RTP header [1316]", "a number of bytes from 1 to 1524",
        [](std::string_view text, CalcOptions& options) {
            return TakeCount(text, MOST_PAYLOAD, options.input.payloadBytes);
        } },
    { "--hold-off", "TIME", "between two tries, as arqrx is told [100ms]",
        "a time from 100ms, before which the proxy sends nothing again, to 10s",
        [](std::string_view text, CalcOptions& options) {
            return TakeTime(text, PROXY_HOLD_OFF_US, 100 * PROXY_HOLD_OFF_US, options.input.holdOffUs);
        } },
};

void AddOption(CLI::App& command, const CalcOption& option, const std::shared_ptr<CalcOptions>& options)
{
    command
        .add_option_function<std::string>(
            option.name,
            [&option, options](const std::string& text) {
                if (!option.read(text, *options))
                    throw CLI::ValidationError(option.name, "'" + text + "' is not " + option.expected);
            },
            option.meaning)
        ->type_name(option.value)
        ->required(option.isNeeded);
}

constexpr CalcOption TARGET_LOSS = { "--target-loss", "SHARE", "what may be lost for good [1e-6]",
    "a share such as 1e-6 or 0.0001%, from 1e-15 to below 1",
    [](std::string_view text, CalcOptions& options) { return TakeTarget(text, options.input.targetLoss); } };
constexpr CalcOption LATENCY
    = { "--latency", "TIME", "the receivers' latency; without it, what the target needs",
          "a time from 10ms to 60s", [](std::string_view text, CalcOptions& options) {
              return TakeTime(text, LEAST_LATENCY_US, MOST_LATENCY_US, options.input.latencyUs);
          } };

ExitStatus Calc(const Session& session, CalcOptions options)
{
    if (!options.hasLossBack)
        options.input.lossUp = options.input.lossDown;
    const CalcResult result = Calculate(options.input);
    const std::string text
        = session.isJson ? CalcJson(options.input, result) : CalcText(options.input, result);
    const ExitStatus end = EndOfOutput(session, WriteOut(text));
    return end == ExitStatus::Good && !result.IsHeld() ? ExitStatus::NotDone : end;
}

} // namespace

void AddCalcCommand(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("calc", "how large ring, budget and latency have to be");
    const auto options = std::make_shared<CalcOptions>();
    for (const CalcOption& option : CALC_OPTIONS)
        AddOption(*command, option, options);
    AddOption(*command, TARGET_LOSS, options);
    AddOption(*command, LATENCY, options);
    command->get_option("--latency")->excludes("--target-loss");
    command->footer("Examples:\n"
                    "  arqctl calc --rate 8M --loss 2% --round-trip 40ms --receivers 50\n"
                    "      the shortest latency that leaves one packet of a million\n"
                    "  arqctl calc --rate 8M --loss 2% --round-trip 40ms --latency 1s --burst 200ms\n"
                    "      what that latency leaves, outages of 200 ms included\n\n"
                    "Exit status: 1 when a limit is exceeded.\n");
    command->callback(
        [&session, options] { session.run = [&session, options] { return Calc(session, *options); }; });
}

} // namespace arqctl
