#include "arqctl/top/top.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>

#include "arqctl/top/deed.h"
#include "arqctl/top/dialog.h"
#include "arqctl/top/plain_line.h"
#include "arqctl/top/terminal.h"
#include "arqctl/top/view.h"
#include "arqctl/top/watch.h"
#include "base/unique_fd.h"
#include "common/clock.h"

namespace arqctl::top {

namespace {

constexpr int64_t TICK_US = common::US_PER_SECOND;

// "14:02:31" of this machine's time zone.
std::string ClockText()
{
    const time_t now = time(nullptr);
    tm parts {};
    std::array<char, 16> text {};
    (void)localtime_r(&now, &parts);
    (void)strftime(text.data(), text.size(), "%H:%M:%S", &parts);
    return text.data();
}

// Signals as something to wait for. Blocked from then on, for children too unless they change it; SIGPIPE is ignored.
UniqueFd TakeSignals()
{
    sigset_t signals;
    (void)sigemptyset(&signals);
    for (const int number : { SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH })
        (void)sigaddset(&signals, number);
    (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    (void)signal(SIGPIPE, SIG_IGN);
    return UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

int TakeSignal(int fd)
{
    signalfd_siginfo told {};
    return read(fd, &told, sizeof(told)) == sizeof(told) ? static_cast<int>(told.ssi_signo) : 0;
}

// Waits for one of them, until `wakeUs` at the latest.
void WaitForAny(std::vector<pollfd>& descriptors, int64_t wakeUs)
{
    const int64_t leftUs = std::clamp<int64_t>(wakeUs - common::NowUs(), 0, 10 * TICK_US);
    const auto leftMs = static_cast<int>((leftUs + common::US_PER_MS - 1) / common::US_PER_MS);
    if (poll(descriptors.data(), descriptors.size(), leftMs) < 0)
        for (pollfd& descriptor : descriptors)
            descriptor.revents = 0;
}

// The whole screen.
class ScreenRun {
public:
    ScreenRun(const TopOptions& options, std::unique_ptr<Terminal> terminal, int signalFd, bool isUtf8)
        : m_options(options),
          m_watch(options.targets, options.patienceUs),
          m_terminal(std::move(terminal)),
          m_nSignalFd(signalFd),
          m_bUtf8(isUtf8)
    {
    }

    void Run()
    {
        while (!m_bEnd) {
            const int64_t nowUs = common::NowUs();
            Proceed(nowUs);
            Show(nowUs);
            WaitForNews(nowUs);
        }
    }

private:
    void Proceed(int64_t nowUs)
    {
        (void)m_watch.Proceed(nowUs);
        if (!m_deed)
            return;
        m_deed->Proceed(nowUs);
        if (!m_deed->IsOver())
            return;
        const DeedResult result = m_deed->Result();
        m_dialog.Say(result.text, result.tone);
        m_dialog.SetBusy(false);
        m_deed.reset();
    }

    void Show(int64_t nowUs)
    {
        ViewState state;
        state.proxies = m_watch.Shown();
        state.nowUs = nowUs;
        state.clock = ClockText();
        state.isUtf8 = m_bUtf8;
        m_dialog.Fill(state);
        m_terminal->Show(DrawView(state, m_terminal->Columns(), m_terminal->Rows()));
    }

    void WaitForNews(int64_t nowUs)
    {
        std::vector<pollfd> descriptors { { m_nSignalFd, POLLIN, 0 }, { STDIN_FILENO, POLLIN, 0 } };
        int64_t wakeUs = std::min(nowUs + TICK_US, m_watch.Wait(descriptors));
        if (m_deed)
            wakeUs = std::min(wakeUs, m_deed->Wait(descriptors));
        WaitForAny(descriptors, wakeUs);
        if (descriptors[0].revents != 0)
            TakeSignalsThatCame();
        if (descriptors[1].revents != 0)
            TakeKeys();
        if ((descriptors[1].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0)
            m_bEnd = true; // the terminal is gone
    }

    void TakeSignalsThatCame()
    {
        while (const int number = TakeSignal(m_nSignalFd)) {
            if (number == SIGWINCH)
                m_terminal->Resize();
            else if (number == SIGTSTP)
                Stop();
            else
                m_bEnd = true;
        }
    }

    void Stop()
    {
        m_terminal->Leave();
        (void)raise(SIGSTOP);
        m_terminal->Return();
    }

    void TakeKeys()
    {
        while (const std::optional<KeyPress> key = m_terminal->ReadKey()) {
            const int64_t nowUs = common::NowUs();
            const std::vector<ShownProxy> proxies = m_watch.Shown();
            if (const std::optional<Order> order = m_dialog.Press(*key, proxies, nowUs))
                Begin(*order, nowUs);
        }
        m_bEnd = m_bEnd || m_dialog.WantsEnd();
    }

    void Begin(const Order& order, int64_t nowUs)
    {
        const Target* const target = m_watch.Find(order.proxy);
        if (target == nullptr)
            return;
        m_deed = BeginDeed(order,
            { *target, m_watch.PathOf(*target), m_watch.InstanceOf(order.proxy), m_options.patienceUs },
            nowUs);
        m_dialog.SetBusy(true);
    }

    const TopOptions& m_options;
    Watch m_watch;
    Dialog m_dialog;
    std::unique_ptr<Deed> m_deed;
    std::unique_ptr<Terminal> m_terminal;
    const int m_nSignalFd;
    const bool m_bUtf8;
    bool m_bEnd = false;
};

// Nothing runs here: said once, so that an empty output has its reason.
void SayNoProxies()
{
    (void)fprintf(stderr, "arqctl: no proxy runs on this machine; it is looked for every 10 s\n");
}

// One line a proxy; false when nobody takes them any more.
bool PrintLines(const Watch& watch, int64_t nowUs)
{
    const std::string clock = ClockText();
    for (const ShownProxy& proxy : watch.Shown())
        if (StateOf(proxy) != ProxyState::Asked)
            (void)printf("%s\n", PlainLine(proxy, clock, nowUs).c_str());
    return fflush(stdout) == 0;
}

TopEnd EndOfOutput()
{
    if (errno == EPIPE)
        return {}; // its reader has had enough
    return { std::string("cannot write to standard output: ")
            + strerror(errno), // NOLINT(concurrency-mt-unsafe)
        "make room there, or write to somewhere else" };
}

TopEnd RunPlain(const TopOptions& options, int signalFd)
{
    Watch watch(options.targets, options.patienceUs);
    bool hasSaid = false;
    for (int64_t nextUs = common::NowUs() + TICK_US;;) {
        const int64_t nowUs = common::NowUs();
        (void)watch.Proceed(nowUs);
        if (!hasSaid && options.targets.empty() && watch.Shown().empty()) {
            SayNoProxies();
            hasSaid = true;
        }
        if (nowUs >= nextUs) {
            if (!PrintLines(watch, nowUs))
                return EndOfOutput();
            nextUs = std::max(nextUs + TICK_US, nowUs + TICK_US / 2);
        }
        std::vector<pollfd> descriptors { { signalFd, POLLIN, 0 }, { STDOUT_FILENO, 0, 0 } };
        const int64_t wakeUs = std::min(nextUs, watch.Wait(descriptors));
        WaitForAny(descriptors, wakeUs);
        if ((descriptors[1].revents & POLLERR) != 0)
            return {}; // the reader of a pipe is gone
        if (const int number = TakeSignal(signalFd); number != 0 && number != SIGWINCH && number != SIGTSTP)
            return {};
    }
}

} // namespace

TopEnd RunTop(const TopOptions& options)
{
    const UniqueFd signals = TakeSignals();
    if (!signals.IsValid())
        return { "no descriptor is free", "raise the limit of open files (ulimit -n)" };
    const bool isUtf8 = UsesUtf8();
    std::unique_ptr<Terminal> terminal
        = options.isPlain ? nullptr : Terminal::Open(options.wantsColour && EnvironmentWantsColour());
    if (!terminal)
        return RunPlain(options, signals.Get());
    ScreenRun(options, std::move(terminal), signals.Get(), isUtf8).Run();
    return {};
}

} // namespace arqctl::top
