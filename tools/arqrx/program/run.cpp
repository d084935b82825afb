#include "arqrx/program/run.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <csignal>
#include <ctime>
#include <thread>
#include <utility>

#include "arqrx/program/text_report.h"
#include "base/unique_fd.h"
#include "common/clock.h"
#include "common/stop_signal.h"

namespace arqrx {

namespace {

constexpr int64_t REPORT_INTERVAL_US = common::US_PER_SECOND;
constexpr int64_t SAMPLE_PATIENCE_US = common::US_PER_SECOND;
constexpr int LAST_LINES_PATIENCE_MS = 1000;

// The media thread, and a descriptor that tells when it has ended.
class MediaThread {
public:
    explicit MediaThread(MediaLoop& loop)
        : m_ended(eventfd(0, EFD_CLOEXEC)),
          m_thread([this, &loop] {
              m_reason = loop.Run();
              const uint64_t one = 1;
              (void)!write(m_ended.Get(), &one, sizeof(one));
          })
    {
    }

    int EndDescriptor() const { return m_ended.Get(); }
    EndReason Join()
    {
        m_thread.join();
        return m_reason;
    }

private:
    UniqueFd m_ended;
    EndReason m_reason = EndReason::Signal; // read after the thread has ended
    std::thread m_thread;
};

// News for people, one message a line.
void PrintNews(const std::string& news, LinePrinter& messages)
{
    for (size_t begin = 0; begin < news.size();) {
        const size_t end = news.find('\n', begin) + 1;
        messages.Print("arqrx: " + news.substr(begin, end - begin));
        begin = end;
    }
}

// Prints what there is to say about each interval.
class Printer {
public:
    Printer(const Options& options, SampleBoard& board, Report& report, LinePrinter& figures)
        : m_bQuiet(options.isQuiet),
          m_nIntervalUs(options.intervalUs),
          m_board(board),
          m_report(report),
          m_figures(figures),
          m_dueUs(common::NowUs() + m_nIntervalUs)
    {
    }

    int64_t WaitMs() const { return std::max<int64_t>(0, m_dueUs - common::NowUs()) / common::US_PER_MS + 1; }

    void PrintIfDue()
    {
        const int64_t nowUs = common::NowUs();
        if (nowUs < m_dueUs)
            return;
        m_dueUs = std::max(m_dueUs + m_nIntervalUs, nowUs); // what was missed is not made up for
        Show(m_board.Fresh(SAMPLE_PATIENCE_US));
    }

    void Show(const Sample& now)
    {
        if (!m_bQuiet)
            PrintNews(News(m_before, now), m_messages);
        m_figures.Print(m_report.Interval(now, time(nullptr)));
        m_before = now;
    }

    void ShowLast(const Sample& last, const RunEnd& end)
    {
        PrintNews(News(m_before, last), m_messages);
        m_figures.Print(m_report.Last(last, end, time(nullptr)), LAST_LINES_PATIENCE_MS);
    }

private:
    const bool m_bQuiet;
    const int64_t m_nIntervalUs;
    SampleBoard& m_board;
    Report& m_report;
    LinePrinter& m_figures;
    LinePrinter m_messages { STDERR_FILENO };
    int64_t m_dueUs;
    Sample m_before;
};

// Tells the server each second.
class Teller {
public:
    Teller(SampleBoard& board, const ServerLine& server)
        : m_board(board),
          m_server(server),
          m_nDueUs(common::NowUs() + REPORT_INTERVAL_US)
    {
    }

    int64_t WaitMs() const
    {
        if (!m_server.sender.IsOpen())
            return INT_MAX;
        return std::max<int64_t>(0, m_nDueUs - common::NowUs()) / common::US_PER_MS + 1;
    }

    void TellIfDue()
    {
        const int64_t nowUs = common::NowUs();
        if (!m_server.sender.IsOpen() || nowUs < m_nDueUs)
            return;
        m_nDueUs = std::max(m_nDueUs + REPORT_INTERVAL_US, nowUs);
        Send(m_server.report.Interval(m_board.Fresh(SAMPLE_PATIENCE_US), time(nullptr)));
    }

    void TellLast(const Sample& last, const RunEnd& end)
    {
        if (m_server.sender.IsOpen())
            Send(m_server.report.Last(last, end, time(nullptr)));
    }

private:
    void Send(const std::string& text)
    {
        m_server.sender.Send(text, common::NowUs());
        PrintNews(m_server.sender.TakeProblem(), m_messages);
    }

    SampleBoard& m_board;
    const ServerLine m_server;
    int64_t m_nDueUs;
    LinePrinter m_messages { STDERR_FILENO };
};

} // namespace

void HoldSignals()
{
    const sigset_t signals = common::StopSignals();
    (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    (void)std::signal(SIGPIPE, SIG_IGN);
}

ExitStatus RunReceiver(const Options& options, MediaParts&& parts, SampleBoard& board, Report& report,
    LinePrinter& figures, const ServerLine& server)
{
    const sigset_t signals = common::StopSignals();
    const UniqueFd signalFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    MediaLoop loop(options, std::move(parts), board);
    MediaThread thread(loop);
    Printer printer(options, board, report, figures);
    Teller teller(board, server);
    std::array<pollfd, 2> waiting { pollfd { signalFd.Get(), POLLIN, 0 },
        pollfd { thread.EndDescriptor(), POLLIN, 0 } };
    while (waiting[1].revents == 0) {
        (void)poll(
            waiting.data(), waiting.size(), static_cast<int>(std::min(printer.WaitMs(), teller.WaitMs())));
        signalfd_siginfo signal {};
        if (read(signalFd.Get(), &signal, sizeof(signal)) > 0)
            loop.Stop();
        if (waiting[1].revents == 0) {
            printer.PrintIfDue();
            teller.TellIfDue();
        }
    }
    RunEnd end;
    end.reason = thread.Join();
    const Sample last = board.Fresh(0);
    end.status = StatusOf(last, options);
    teller.TellLast(last, end);
    printer.ShowLast(last, end);
    return end.status;
}

} // namespace arqrx
