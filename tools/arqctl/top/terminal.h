#pragma once

#include <memory>
#include <optional>

#include "arqctl/top/grid.h"
#include "arqctl/top/key_press.h"

namespace arqctl::top {

// The terminal behind standard output, taken over as a whole and given back by the destructor: screen, cursor, echo. Only
// writes grids and reads keys, without waiting. One at a time.
//
// SIGWINCH and the signals that end or stop the program are not its business: they have to be blocked, and whoever waits
// for them calls Resize, or lets this object end. Threads: one thread's own.
class Terminal {
public:
    // Null: standard input or output is no terminal, or one that cannot move its cursor.
    static std::unique_ptr<Terminal> Open(bool wantsColour);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    int Columns() const;
    int Rows() const;
    // Takes over the size that it has now.
    void Resize();
    // Leaves a screen out when the terminal takes nothing (stopped with Ctrl-S).
    void Show(const Grid& grid);
    std::optional<KeyPress> ReadKey();

    // Gives it back until Return, for the time in which the program is stopped.
    void Leave();
    void Return();

private:
    Terminal() = default;
};

// The locale's letters are those of UTF-8. Sets the locale's letters for the whole program.
bool UsesUtf8();
// NO_COLOR is not set or empty (no-color.org).
bool EnvironmentWantsColour();

} // namespace arqctl::top
