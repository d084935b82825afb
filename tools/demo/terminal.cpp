#include "demo/terminal.h"

#include <fcntl.h>
#include <langinfo.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <string_view>

#include "demo/format.h"

namespace demo {

namespace {

constexpr const char* HELLO = "\x1b[?1049h\x1b[?25l\x1b[?7l\x1b[2J";
constexpr int LAST_WORDS_MS = 500;

std::string_view Environment(const char* name)
{
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool IsDumb()
{
    return Environment("TERM").empty() || Environment("TERM") == "dumb";
}

} // namespace

Terminal::~Terminal()
{
    LeaveScreen();
}

bool Terminal::Open()
{
    std::array<char, PATH_MAX> name;
    if (IsDumb() || ttyname_r(STDOUT_FILENO, name.data(), name.size()) != 0)
        return false;
    m_fd.Reset(open(name.data(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return m_fd.IsValid();
}

void Terminal::EnterScreen()
{
    m_bEntered = true;
    m_pending += HELLO;
    (void)Flush();
}

void Terminal::LeaveScreen()
{
    if (!m_bEntered)
        return;
    m_bEntered = false;
    m_pending += TERMINAL_GOODBYE;
    pollfd room { m_fd.Get(), POLLOUT, 0 };
    while (!Flush() && poll(&room, 1, LAST_WORDS_MS) > 0) {}
    m_shown.clear();
}

TerminalSize Terminal::Size() const
{
    winsize size {};
    if (ioctl(m_fd.Get(), TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        return { 80, 24 };
    return { size.ws_col, size.ws_row };
}

void Terminal::Show(const Screen& screen, Colors colors)
{
    if (!Flush())
        return;
    if (m_shown.size() != static_cast<size_t>(screen.Rows())) {
        m_pending += "\x1b[2J";
        m_shown.assign(static_cast<size_t>(screen.Rows()), "");
    }
    for (int row = 0; row < screen.Rows(); ++row) {
        std::string line = screen.Line(row, colors);
        std::string& shown = m_shown[static_cast<size_t>(row)];
        if (line == shown)
            continue;
        m_pending += Format("\x1b[%d;1H", row + 1) + line + "\x1b[0m\x1b[K";
        shown = std::move(line);
    }
    (void)Flush();
}

// True when nothing is left to write.
bool Terminal::Flush()
{
    while (!m_pending.empty()) {
        const ssize_t count = write(m_fd.Get(), m_pending.data(), m_pending.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 && errno != EAGAIN)
            m_pending.clear(); // the terminal is gone
        if (count < 0)
            return m_pending.empty();
        m_pending.erase(0, static_cast<size_t>(count));
    }
    return true;
}

ViewStyle StyleOfEnvironment(bool wantsColor)
{
    (void)setlocale(LC_CTYPE, ""); // NOLINT(concurrency-mt-unsafe): there is one thread
    ViewStyle style;
    style.isUtf8 = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
    if (!wantsColor || IsDumb() || !Environment("NO_COLOR").empty())
        return style;
    const std::string_view depth = Environment("COLORTERM");
    style.colors = depth == "truecolor" || depth == "24bit" ? Colors::True : Colors::Palette;
    return style;
}

} // namespace demo
