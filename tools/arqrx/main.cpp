// arqrx: the receiving end of a stream of tx_proxy, as a program.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "arqrx/cli/command_line.h"
#include "arqrx/cli/json_report.h"
#include "arqrx/cli/metrics.h"
#include "arqrx/cli/server_report.h"
#include "arqrx/program/run.h"
#include "arqrx/program/text_report.h"

namespace arqrx {

namespace {

// Where figures go, and how what ends the program is told.
struct Voice {
    bool isJson;
    int figuresFd;

    int Fail(ExitStatus status, const std::string& why, const std::string& advice = "") const
    {
        LinePrinter(STDERR_FILENO).Print("arqrx: " + why + "\n" + advice);
        if (isJson)
            LinePrinter(figuresFd).Print(JsonError(why, status));
        return static_cast<int>(status);
    }
};

std::string StreamName(const Options& options)
{
    if (options.group)
        return common::EndpointText(*options.group);
    if (options.listen)
        return common::EndpointText(*options.listen);
    return options.proxyHost + ":" + std::to_string(options.pingPort);
}

std::unique_ptr<Report> MakeReport(const Options& options)
{
    if (options.isJson)
        return std::make_unique<JsonReport>(StreamName(options), options.isQuiet);
    return std::make_unique<TextReport>(options);
}

int Receive(const Options& options, const Voice& voice)
{
    HoldSignals();
    MediaParts parts;
    std::string problem;
    if (!OpenMedia(options, parts, problem))
        return voice.Fail(ExitStatus::NoStart, problem);
    for (const std::string& news : parts.news)
        LinePrinter(STDERR_FILENO).Print("arqrx: " + news + "\n");
    SampleBoard board;
    std::optional<Metrics> metrics;
    try {
        if (!options.metrics.empty())
            metrics.emplace(options.metrics, StreamName(options), board);
    } catch (const std::exception&) {
        return voice.Fail(ExitStatus::NoStart,
            "cannot serve metrics on " + options.metrics + "; take another port with --metrics ADDRESS:PORT");
    }
    ReportSender sender;
    if (!options.report.host.empty() && !sender.Open(options.report, parts.sockets.Local().address, problem))
        return voice.Fail(ExitStatus::NoStart, problem);
    ServerReport serverReport(StreamName(options), options);
    const std::unique_ptr<Report> report = MakeReport(options);
    LinePrinter figures(voice.figuresFd);
    return static_cast<int>(
        RunReceiver(options, std::move(parts), board, *report, figures, { serverReport, sender }));
}

// Also when options are wrong: who reads JSON gets an object in any case.
bool HasJson(int argc, char** argv)
{
    return std::any_of(argv, argv + argc, [](std::string_view text) { return text == "--json"; });
}

} // namespace

} // namespace arqrx

int main(int argc, char** argv)
{
    using arqrx::ExitStatus;
    arqrx::Voice voice { arqrx::HasJson(argc, argv), STDOUT_FILENO };
    try {
        const arqrx::CommandLine line = arqrx::ReadCommandLine(argc, argv);
        if (line.isError)
            return voice.Fail(ExitStatus::Usage, line.text, "Try 'arqrx --help' for options and examples.\n");
        if (!line.isRunning)
            return fputs(line.text.c_str(), stdout) < 0 ? 1 : 0;
        voice.isJson = line.options.isJson;
        if (line.options.WritesToStandardOutput())
            voice.figuresFd = STDERR_FILENO;
        return arqrx::Receive(line.options, voice);
    } catch (const std::exception& error) {
        return voice.Fail(ExitStatus::NoStart, std::string("cannot go on: ") + error.what());
    }
}
