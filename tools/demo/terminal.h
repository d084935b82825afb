#pragma once

#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "demo/screen.h"
#include "demo/view.h"

namespace demo {

struct TerminalSize {
    int columns, rows;
};

// Gives the terminal back as it was: cursor, line wrap, the main screen.
constexpr const char* TERMINAL_GOODBYE = "\x1b[0m\x1b[?7h\x1b[?25h\x1b[?1049l";

// The terminal behind standard output, for whole screens. A slow or stopped one holds nobody up: what does not fit waits,
// and newer screens are left out meanwhile. Threads: one.
class Terminal {
public:
    ~Terminal();
    Terminal() = default;
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // False: standard output is no terminal, or one that cannot move its cursor.
    bool Open();
    void EnterScreen(); // the alternate one
    void LeaveScreen(); // and what was to be seen before is there again
    TerminalSize Size() const; // 80 x 24 when it does not tell
    void Show(const Screen& screen, Colors colors);
    int Fd() const { return m_fd.Get(); }

private:
    bool Flush();

    UniqueFd m_fd; // of our own, so that not waiting is not forced on others
    std::vector<std::string> m_shown; // the lines that stand there
    std::string m_pending;
    bool m_bEntered = false;
};

// As the environment says: NO_COLOR, TERM, COLORTERM, and the locale's letters.
ViewStyle StyleOfEnvironment(bool wantsColor);

} // namespace demo
