#include "arqctl/cli/stats_watch.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <vector>

#include "arqctl/cli/standard_output.h"
#include "arqctl/core/reply.h"
#include "arqctl/proxy/poller.h"
#include "arqctl/proxy/process.h"
#include "common/clock.h"
#include "common/stop_signal.h"

namespace arqctl {

namespace {

double UnixNow()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count();
}

// One watch. Threads: one thread's own.
class StatsWatch {
public:
    StatsWatch(const Session& session, const WatchSettings& settings)
        : m_session(session),
          m_settings(settings),
          m_stop(common::OpenStopSignal()),
          m_poller({ session.tunnels->PathOf(session.target) }, settings.periodUs, session.patienceUs)
    {
    }

    ExitStatus Run()
    {
        if (m_settings.form != StatsForm::Json)
            Write(m_settings.form == StatsForm::Csv ? CsvHeading() : WatchHeading());
        while (!m_end) {
            m_session.tunnels->Proceed(common::NowUs());
            for (PolledAnswer& polled : m_poller.Proceed(common::NowUs()))
                Take(polled);
            if (!m_end)
                Wait();
        }
        return *m_end;
    }

private:
    void Wait();
    void Take(PolledAnswer& polled);
    void TakeAnswer(const Statistics& statistics, const PolledAnswer& polled);
    void TakeMiss(Failure failure, int64_t atUs);
    void Show(const Sample& sample, const std::string& problem);
    void Tell(const std::string& note);
    void TellOfChanges(const Reading& before);
    void Write(const std::string& text);
    int FanOutOf(int peerPid);

    const Session& m_session;
    const WatchSettings m_settings;
    const UniqueFd m_stop;
    Poller m_poller;
    Meter m_meter;
    uint64_t m_nAsked = 0;
    int64_t m_downSinceUs = 0; // 0: it answers
    int m_nFanOut = -1;
    int m_nFanOutPid = 0; // of the process that it was found out for
    std::optional<ExitStatus> m_end;
};

void StatsWatch::Wait()
{
    constexpr int64_t TUNNEL_TURN_US = common::US_PER_SECOND; // how often the tunnel is looked after
    // Standard output with no events: an error is reported there when its reader has gone.
    std::vector<pollfd> waiting { { m_stop.Get(), POLLIN, 0 }, { STDOUT_FILENO, 0, 0 } };
    const int64_t wakeUs = m_poller.Wait(waiting);
    const int64_t leftUs = std::clamp<int64_t>(wakeUs - common::NowUs(), 0, TUNNEL_TURN_US);
    (void)poll(waiting.data(), waiting.size(),
        static_cast<int>((leftUs + common::US_PER_MS - 1) / common::US_PER_MS));
    if (waiting[0].revents != 0 || (waiting[1].revents & (POLLERR | POLLHUP)) != 0)
        m_end = ExitStatus::Good;
}

void StatsWatch::Take(PolledAnswer& polled)
{
    ++m_nAsked;
    m_session.tunnels->Judge(m_session.target, polled.answer);
    Statistics statistics;
    if (!polled.answer.IsThere())
        TakeMiss(polled.answer.failure, polled.atUs);
    else if (ParseStatistics(polled.answer.reply, statistics))
        TakeAnswer(statistics, polled);
    else
        TakeMiss(Failure::Foreign, polled.atUs);
    if (!m_end && m_settings.count != 0 && m_nAsked >= m_settings.count)
        m_end = ExitStatus::Good;
}

// A proxy that sends to a group shows that only on its command line.
int StatsWatch::FanOutOf(int peerPid)
{
    if (peerPid != m_nFanOutPid) {
        const auto facts = peerPid != 0 ? FactsOf(peerPid) : std::nullopt;
        m_nFanOut = facts && !OutputGroup(facts->options).empty() ? 1 : -1;
        m_nFanOutPid = peerPid;
    }
    return m_nFanOut;
}

void StatsWatch::TakeAnswer(const Statistics& statistics, const PolledAnswer& polled)
{
    const Reading before = m_meter.Now();
    m_meter.Take(statistics, polled.atUs, polled.answer.peerPid, FanOutOf(polled.answer.peerPid));
    const Reading& now = m_meter.Now();
    if (m_downSinceUs != 0)
        Tell(fmt::format(
            "it answers again, after {:.1f} s", static_cast<double>(polled.atUs - m_downSinceUs) / 1e6));
    m_downSinceUs = 0;
    if (before.hasBeenUp)
        TellOfChanges(before);
    const bool hasInterval = before.hasBeenUp && now.totals.restarts == before.totals.restarts;
    Show({ .now = now,
             .unixTime = UnixNow(),
             .atUs = polled.atUs,
             .before = hasInterval ? std::optional(before.totals) : std::nullopt,
             .beforeUs = before.atUs,
             .isWatched = true },
        "");
}

void StatsWatch::TellOfChanges(const Reading& before)
{
    const Reading& now = m_meter.Now();
    if (now.totals.restarts != before.totals.restarts)
        Tell("the proxy has been started anew");
    if (now.totals.resets != before.totals.resets)
        Tell("its counts were reset");
    if (now.isInputGone && !before.isInputGone)
        Tell("no input");
    if (before.isInputGone && !now.isInputGone)
        Tell("input again");
}

void StatsWatch::TakeMiss(Failure failure, int64_t atUs)
{
    if (!m_meter.Now().hasBeenUp || m_settings.endsWhenDown) {
        m_end = FailedAnswer(m_session, failure);
        return;
    }
    m_meter.Miss(atUs);
    const Trouble trouble = m_session.tunnels->Explain(m_session.target, failure);
    if (m_downSinceUs == 0) {
        m_downSinceUs = atUs;
        Tell(trouble.problem + "; it is asked on");
    }
    if (m_settings.form != StatsForm::People)
        Show({ .now = m_meter.Now(), .unixTime = UnixNow(), .atUs = atUs, .before = {}, .isWatched = true },
            trouble.problem);
}

void StatsWatch::Show(const Sample& sample, const std::string& problem)
{
    switch (m_settings.form) {
    case StatsForm::People:
        return Write(WatchLine(sample));
    case StatsForm::Csv:
        return Write(CsvLine(sample));
    case StatsForm::Json:
        return Write(JsonLine(sample, problem));
    }
}

// Rows of CSV have no place for it, and objects say it by their members.
void StatsWatch::Tell(const std::string& note)
{
    if (m_settings.form == StatsForm::People)
        Write(NoteLine(UnixNow(), note));
    else if (m_settings.form == StatsForm::Csv)
        fmt::print(stderr, "arqctl: {}\n", note);
}

void StatsWatch::Write(const std::string& text)
{
    if (m_end)
        return;
    const Written written = WriteOut(text, m_stop.Get());
    if (written != Written::Yes)
        m_end = EndOfOutput(m_session, written);
}

} // namespace

ExitStatus WatchStats(const Session& session, const WatchSettings& settings)
{
    const Failure failure = session.tunnels->Open(session.target, session.patienceUs);
    if (failure != Failure::None)
        return FailedAnswer(session, failure);
    return StatsWatch(session, settings).Run();
}

} // namespace arqctl
