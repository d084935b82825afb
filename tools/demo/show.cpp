#include "demo/show.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <utility>

#include "common/clock.h"
#include "demo/format.h"
#include "demo/plain_table.h"

namespace demo {

namespace {

constexpr int64_t LATENCY_US = 1'000'000;
constexpr int64_t START_US = 30'000'000; // for a program to get ready on a busy machine
constexpr int64_t DRAIN_US = LATENCY_US + 500'000;
constexpr int64_t DRAW_EVERY_US = 100'000;
constexpr int64_t ROW_EVERY_US = 1'000'000;
constexpr std::array<uint32_t, 2> ADDRESSES { 0x7F000002,
    0x7F000003 }; // not 127.0.0.1, which the proxy takes for configured
constexpr int SOURCE_BUFFER_BYTES = 1 << 20;

} // namespace

Show::Show(const Options& options, std::string proxyBinary, bool hasSandbox, Feed& feed, const Folder& folder,
    Signals& signals)
    : m_options(options),
      m_proxyBinary(std::move(proxyBinary)),
      m_bSandbox(hasSandbox),
      m_feed(feed),
      m_folder(folder),
      m_signals(signals),
      m_nLengthUs(options.seconds * int64_t { 1'000'000 }),
      m_phases(Phases(m_nLengthUs)),
      m_ledger(m_nLengthUs, LATENCY_US),
      m_gallery(m_phases, feed.PicturesPerSecond())
{
}

Show::~Show()
{
    LeaveScreen();
}

int Show::Run()
{
    m_style = StyleOfEnvironment(m_options.wantsColor);
    m_bLive = m_options.wantsView && m_terminal.Open();
    const bool isWhole = StartProxy() && StartReceivers() && Stream() && Drain();
    LeaveScreen();
    if (const int number = m_signals.First(); number != 0) {
        std::printf("\nSTOPPED by %s\n", SignalName(number));
        return 128 + number;
    }
    if (!isWhole) {
        std::printf("\nFAILED: %s\n", m_failure.c_str());
        return 1;
    }
    return Judge();
}

bool Show::Fail(const std::string& why)
{
    if (m_failure.empty())
        m_failure = why;
    return false;
}

template <typename Condition>
bool Show::WaitFor(Condition condition, const char* what)
{
    constexpr int64_t LOOK_EVERY_US = 10'000;
    const int64_t end = common::NowUs() + START_US;
    for (int64_t now; !condition();) {
        if ((now = common::NowUs()) > end)
            return Fail(std::string("gave up waiting for ") + what);
        if (!Step(now + LOOK_EVERY_US))
            return false;
    }
    return true;
}

bool Show::StartProxy()
{
    for (const int instance : FreeInstances()) {
        auto proxy = std::make_unique<Proxy>();
        if (!proxy->Start(m_proxyBinary, ProxyPorts(instance)))
            return Fail("the proxy cannot be started: no process");
        auto state = Proxy::State::Starting;
        const auto isDecided = [&] { return (state = proxy->Look()) != Proxy::State::Starting; };
        if (!WaitFor(isDecided, "the proxy to listen"))
            return false;
        if (state == Proxy::State::Taken)
            continue;
        if (state == Proxy::State::Ended)
            return Fail("the proxy did not start: " + proxy->HowItEnded());
        m_proxy = std::move(proxy);
        std::printf("tx_proxy: process %d, instance %d, input %d, pings %d, requests %d\n",
            m_proxy->Process().Pid(), instance, ProxyPorts(instance).input, ProxyPorts(instance).ping,
            ProxyPorts(instance).request);
        (void)std::fflush(stdout);
        const std::vector<std::string> files { ControlPath(instance) };
        m_janitor.Start(m_bLive ? m_terminal.Fd() : -1, TERMINAL_GOODBYE,
            m_bSandbox ? std::vector<std::string> {} : files);
        (void)m_sourceSocket.Open();
        m_sourceSocket.SetBuffers(SOURCE_BUFFER_BYTES, SOURCE_BUFFER_BYTES);
        if (!m_sourceSocket.Connect({ LOOPBACK, ProxyPorts(instance).input }))
            return Fail("the source has no socket: " + m_sourceSocket.Problem());
        for (const Side side : SIDES) {
            m_stations[Index(side)] = std::make_unique<Station>(side, LineScript(m_phases), LATENCY_US,
                m_ledger, [this](Side who, std::span<const uint8_t> datagram) {
                    m_feed.Play(who, datagram.subspan(12));
                });
            if (!m_stations[Index(side)]->Open(ADDRESSES[Index(side)],
                    { LOOPBACK, ProxyPorts(instance).ping }, { LOOPBACK, ProxyPorts(instance).request }))
                return Fail("a receiver has no socket: " + m_stations[Index(side)]->Problem());
        }
        return true;
    }
    return Fail("no free instance number: too many demos at once");
}

// Both are in place before media flow: nothing is missing from the beginning.
bool Show::StartReceivers()
{
    if (!m_feed.Open())
        return Fail(m_feed.Problem());
    const auto areServed = [this] {
        return std::ranges::all_of(m_stations, [this](const auto& station) {
            return m_proxy->HasServed("Media started on port", station->Address());
        });
    };
    // The proxy says so shortly before it sends to them.
    const auto haveAnswered = [this] {
        for (const auto& station : m_stations)
            station->Knock();
        return std::ranges::all_of(m_stations, [](const auto& station) { return station->IsAnswered(); });
    };
    return WaitFor(areServed, "the proxy to serve the receivers")
        && WaitFor(haveAnswered, "the proxy to answer");
}

bool Show::Stream()
{
    if (m_bLive)
        m_terminal.EnterScreen();
    else
        std::printf("\n%s", TableHead().c_str());
    (void)std::fflush(stdout);
    m_feed.Begin(common::NowUs());
    const int64_t give = common::NowUs() + START_US;
    while (m_ledger.Sent() == 0) {
        if (common::NowUs() > give)
            return Fail("the source sends nothing");
        if (!Step(std::min(common::NowUs() + DRAW_EVERY_US, NextWakeUs())))
            return false;
    }
    m_bStreaming = true;
    for (const auto& station : m_stations)
        station->Begin(m_ledger.StartUs());
    const int64_t end = m_ledger.StartUs() + m_nLengthUs;
    while (common::NowUs() < end)
        if (!Step(std::min(end, NextWakeUs())))
            return false;
    m_feed.End();
    return true;
}

// What is under way arrives, is asked for and is played out; the decoders come to their end.
bool Show::Drain()
{
    for (const int64_t end = common::NowUs() + DRAIN_US; common::NowUs() < end;)
        if (!Step(std::min(end, NextWakeUs())))
            return false;
    const int64_t now = common::NowUs();
    for (const auto& station : m_stations) {
        station->EndOfStream(now);
        station->OnTime(now);
        station->Leave(now);
    }
    m_ledger.Finish();
    m_feed.EndPlay();
    m_feed.Decode(m_gallery);
    return WaitFor([this] { return m_feed.IsDecoded(); }, "the decoders");
}

int64_t Show::NextWakeUs() const
{
    int64_t wake = std::min(m_feed.NextWakeUs(), m_nNextDrawUs);
    for (const auto& station : m_stations)
        if (station)
            wake = std::min(wake, station->NextWakeUs());
    return wake;
}

void Show::Wait(int64_t wakeUs)
{
    std::vector<pollfd> fds { { m_signals.Fd(), POLLIN, 0 } };
    if (m_proxy) {
        fds.push_back({ m_proxy->Process().MessagesFd(), POLLIN, 0 });
        fds.push_back({ m_proxy->ControlFd(), POLLIN, 0 });
    }
    for (const auto& station : m_stations)
        if (station)
            fds.push_back({ station->Fd(), POLLIN, 0 });
    for (const int fd : m_feed.ReadFds())
        fds.push_back({ fd, POLLIN, 0 });
    for (const int fd : m_feed.WriteFds())
        fds.push_back({ fd, POLLOUT, 0 });
    const int64_t wait = std::max<int64_t>(0, wakeUs - common::NowUs());
    const timespec timeout { wait / 1'000'000, wait % 1'000'000 * 1000 };
    (void)ppoll(fds.data(), fds.size(), &timeout, nullptr);
}

void Show::SendDue(int64_t nowUs)
{
    for (const std::vector<uint8_t>& datagram : m_feed.Due(nowUs)) {
        if (m_bStreaming && nowUs >= m_ledger.StartUs() + m_nLengthUs)
            return;
        m_ledger.OnSent(datagram, common::NowUs());
        (void)send(m_sourceSocket.Fd(), datagram.data(), datagram.size(), 0);
    }
}

bool Show::Step(int64_t wakeUs)
{
    Wait(wakeUs);
    const int64_t now = common::NowUs();
    if (m_signals.First() != 0)
        return false;
    if (m_proxy && m_proxy->Look() == Proxy::State::Ended)
        return Fail("the proxy ended by itself, " + m_proxy->HowItEnded());
    if (!m_proxy)
        return true;
    SendDue(now);
    for (const auto& station : m_stations)
        if (station) {
            station->OnReadable(now);
            station->OnTime(now);
        }
    m_feed.Decode(m_gallery);
    m_proxy->ReadFigures();
    if (now >= m_nNextDrawUs) {
        m_proxy->AskFigures(now);
        Draw(now);
    }
    const std::string problem = m_feed.Problem();
    return problem.empty() || Fail(problem);
}

ViewState Show::State(int64_t nowUs) const
{
    ViewState state;
    state.timeUs = m_bStreaming ? nowUs - m_ledger.StartUs() : 0;
    state.lengthUs = m_nLengthUs;
    state.sent = m_ledger.Sent();
    state.source = m_feed.Name();
    state.phases = &m_phases;
    state.history = &m_ledger.Past();
    for (const Side side : SIDES) {
        state.figures[Index(side)] = m_stations[Index(side)]->Counted();
        state.pictures[Index(side)] = m_gallery.Latest(side);
    }
    state.proxy = m_proxy->Figures();
    state.proxyNote
        = m_bSandbox ? "its figures come within a second" : "no figures: its control socket is out of reach";
    return state;
}

void Show::Draw(int64_t nowUs)
{
    m_nNextDrawUs = nowUs + DRAW_EVERY_US;
    if (m_bLive && m_bStreaming) {
        const TerminalSize size = m_terminal.Size();
        m_terminal.Show(DrawView(State(nowUs), size.columns, size.rows, m_style), m_style.colors);
        return;
    }
    if (m_bLive || !m_bStreaming || nowUs - m_ledger.StartUs() < (m_nRows + 1) * ROW_EVERY_US
        || m_nRows >= m_options.seconds)
        return;
    std::printf("%s", TableRow(Format("%d s", ++m_nRows), State(nowUs)).c_str());
    (void)std::fflush(stdout);
}

void Show::LeaveScreen()
{
    if (!m_bLive)
        return;
    m_bLive = false;
    m_terminal.LeaveScreen();
    m_janitor.Finish();
    if (!m_bStreaming)
        return;
    // What was to be seen last stays, without the picture's place on the screen.
    const TerminalSize size = m_terminal.Size();
    const Screen last = DrawView(State(common::NowUs()), size.columns, std::min(size.rows, 30), m_style);
    for (int row = 0; row < last.Rows(); ++row)
        std::printf("%s\n", last.Line(row, m_style.colors).c_str());
    (void)std::fflush(stdout);
}

} // namespace demo
