#include "arqlink/options.h"
#include "arqlink/relay/relay.h"
#include "arqlink/report.h"
#include "common/clock.h"
#include "common/stop_signal.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <sys/resource.h>
#include <utility>
#include <vector>

namespace arqlink {

namespace {

// A client needs a descriptor, and the program a few; beyond what is allowed clients are refused.
void AllowDescriptors(const RelayOptions& options)
{
    rlimit limit {};
    const rlim_t needed = options.maxClients + options.pairs.size() + 32;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= needed)
        return;
    limit.rlim_cur = std::min(needed, limit.rlim_max);
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

// The run: from the open relay to its end.
class Session {
public:
    Session(Options& options, Relay& relay, Report& report)
        : m_options(options),
          m_relay(relay),
          m_report(report),
          m_nStartUs(common::NowUs()),
          m_nNextReportUs(options.intervalUs > 0 ? options.intervalUs : NEVER)
    {
    }

    // False: standard output is gone.
    bool Run()
    {
        bool bGoOn = true;
        while (bGoOn) {
            const int64_t elapsedUs = common::NowUs() - m_nStartUs;
            if (!PrintNews(elapsedUs) || !RunScript(elapsedUs) || !PrintLine(elapsedUs))
                return false;
            if (elapsedUs >= m_options.durationUs || m_options.script.HasEnded())
                break;
            bGoOn = m_relay.Turn(Later(NextUs()));
        }
        return m_report.Final(Seconds(common::NowUs() - m_nStartUs), m_relay.Now(), m_relay);
    }

private:
    static double Seconds(int64_t elapsedUs) { return static_cast<double>(elapsedUs) / 1e6; }
    int64_t Later(int64_t elapsedUs) const { return elapsedUs == NEVER ? NEVER : m_nStartUs + elapsedUs; }
    int64_t NextUs() const
    {
        return std::min({ m_options.script.NextUs(), m_nNextReportUs, m_options.durationUs });
    }

    bool RunScript(int64_t elapsedUs)
    {
        Settings down = m_relay.Down();
        Settings up = m_relay.Up();
        if (m_options.script.NextUs() > elapsedUs || !m_options.script.Advance(elapsedUs, down, up))
            return true;
        m_relay.Configure(down, up);
        return m_report.Changed(Seconds(elapsedUs), m_relay);
    }

    bool PrintNews(int64_t elapsedUs)
    {
        const std::vector<ClientNews> news = m_relay.TakeNews();
        return std::all_of(news.begin(), news.end(),
            [&](const ClientNews& item) { return m_report.News(Seconds(elapsedUs), item); });
    }

    bool PrintLine(int64_t elapsedUs)
    {
        if (elapsedUs < m_nNextReportUs)
            return true;
        m_nNextReportUs += (elapsedUs - m_nNextReportUs) / m_options.intervalUs * m_options.intervalUs;
        m_nNextReportUs += m_options.intervalUs;
        return m_report.Line(Seconds(elapsedUs), m_relay.Now(), m_relay);
    }

    Options& m_options;
    Relay& m_relay;
    Report& m_report;
    int64_t m_nStartUs;
    int64_t m_nNextReportUs;
};

int RunRelay(Options& options, Report& report)
{
    const UniqueFd stop = common::OpenStopSignal();
    (void)std::signal(SIGPIPE, SIG_IGN);
    AllowDescriptors(options.relay);
    options.relay.stopFd = stop.Get();
    FateLog log;
    std::string problem;
    Relay relay(options.relay, log);
    // The log last: a start that fails leaves the one of the last run as it is.
    if (!relay.Open(problem) || (!options.fatesPath.empty() && !log.Open(options.fatesPath, problem))) {
        report.Failure(problem, false);
        return EXIT_TROUBLE;
    }
    const bool bHeard = report.Ready(options.relay.pairs, relay.Listening(), relay)
        && Session(options, relay, report).Run();
    if (!log.Close()) {
        report.Failure("cannot write all of " + options.fatesPath + "; is its disk full?", false);
        return EXIT_TROUBLE;
    }
    return bHeard ? EXIT_DONE : EXIT_TROUBLE;
}

int Main(int argc, char** argv)
{
    Options options;
    const Parsed parsed = ParseOptions(argc, argv, options);
    Report report(options.bJson, options.bQuiet);
    if (!parsed.bGoOn) {
        if (!parsed.problem.empty())
            report.Failure(parsed.problem, true);
        return parsed.status;
    }
    return RunRelay(options, report);
}

} // namespace

} // namespace arqlink

int main(int argc, char** argv)
{
    try {
        return arqlink::Main(argc, argv);
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "arqlink: %s\n", error.what());
        return arqlink::EXIT_TROUBLE;
    }
}
