#include "arqctl/top/terminal.h"

#define NCURSES_NOMACROS // they would have the names of other things: clear, erase, move
#include <curses.h>
#include <langinfo.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <clocale>
#include <cstdlib>
#include <string_view>

namespace arqctl::top {

namespace {

constexpr int ESCAPE_DELAY_MS = 25; // within it the rest of a key's sequence comes
constexpr int USUAL_COLUMNS = 80, USUAL_ROWS = 24; // of a terminal that does not tell
constexpr int ESCAPE = 27, DELETE = 127, LINE_FEED = 10, CARRIAGE_RETURN = 13, BACKSPACE = 8;

enum Pair : short { GREEN = 1, YELLOW, RED, ALARM, CYAN };

std::string_view EnvironmentText(const char* name)
{
    const char* const value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): nobody sets it
    return value != nullptr ? value : "";
}

void BeginColours()
{
    if (!has_colors() || start_color() == ERR)
        return;
    const short ground = use_default_colors() == OK ? short { -1 } : short { COLOR_BLACK };
    (void)init_pair(GREEN, COLOR_GREEN, ground);
    (void)init_pair(YELLOW, COLOR_YELLOW, ground);
    (void)init_pair(RED, COLOR_RED, ground);
    (void)init_pair(ALARM, COLOR_WHITE, COLOR_RED);
    (void)init_pair(CYAN, COLOR_CYAN, ground);
}

struct Look {
    attr_t attributes;
    short pair;
};

// Without colours what matters most is bold or reverse.
Look LookOf(Tone tone, bool hasColours)
{
    switch (tone) {
    case Tone::Plain:
        return { A_NORMAL, 0 };
    case Tone::Faint:
        return { A_DIM, 0 };
    case Tone::Head:
        return hasColours ? Look { A_NORMAL, CYAN } : Look { A_BOLD, 0 };
    case Tone::Strong:
        return { A_BOLD, 0 };
    case Tone::Good:
        return { A_NORMAL, hasColours ? short { GREEN } : short { 0 } };
    case Tone::Warn:
        return { A_BOLD, hasColours ? short { YELLOW } : short { 0 } };
    case Tone::Hurt:
        return { A_NORMAL, hasColours ? short { RED } : short { 0 } };
    case Tone::Bad:
        return hasColours ? Look { A_BOLD, ALARM } : Look { A_REVERSE, 0 };
    case Tone::Ask:
        return { A_REVERSE, 0 };
    }
    return { A_NORMAL, 0 };
}

void WriteCell(int column, int row, const Cell& cell, bool hasColours)
{
    const Look look = LookOf(cell.tone, hasColours);
    const std::array<wchar_t, 2> letter { static_cast<wchar_t>(cell.letter), L'\0' };
    cchar_t complex {};
    (void)setcchar(&complex, letter.data(), look.attributes, look.pair, nullptr);
    (void)mvadd_wch(row, column, &complex);
}

bool TakesMore()
{
    pollfd output { STDOUT_FILENO, POLLOUT, 0 };
    return poll(&output, 1, 0) == 1 && (output.revents & POLLOUT) != 0;
}

KeyPress KeyOf(int code)
{
    using Kind = KeyPress::Kind;
    switch (code) {
    case KEY_UP:
        return { Kind::Up, '\0' };
    case KEY_DOWN:
        return { Kind::Down, '\0' };
    case KEY_ENTER:
    case LINE_FEED:
    case CARRIAGE_RETURN:
        return { Kind::Enter, '\0' };
    case ESCAPE:
        return { Kind::Escape, '\0' };
    case KEY_BACKSPACE:
    case DELETE:
    case BACKSPACE:
        return { Kind::Backspace, '\0' };
    default:
        break;
    }
    return code >= ' ' && code < DELETE ? KeyPress { Kind::Letter, static_cast<char>(code) } : KeyPress {};
}

} // namespace

std::unique_ptr<Terminal> Terminal::Open(bool wantsColour)
{
    const std::string_view kind = EnvironmentText("TERM");
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0 || kind.empty() || kind == "dumb")
        return nullptr;
    if (newterm(nullptr, stdout, stdin) == nullptr)
        return nullptr;
    std::unique_ptr<Terminal> terminal(new Terminal);
    (void)set_escdelay(ESCAPE_DELAY_MS);
    (void)cbreak();
    (void)noecho();
    (void)nonl();
    (void)nodelay(stdscr, TRUE);
    (void)keypad(stdscr, TRUE);
    (void)curs_set(0);
    if (wantsColour)
        BeginColours();
    terminal->Resize();
    return terminal;
}

Terminal::~Terminal()
{
    Leave();
}

int Terminal::Columns() const
{
    return getmaxx(stdscr);
}

int Terminal::Rows() const
{
    return getmaxy(stdscr);
}

void Terminal::Resize()
{
    winsize size {};
    const bool isKnown = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0;
    const int columns = isKnown ? size.ws_col : USUAL_COLUMNS, rows = isKnown ? size.ws_row : USUAL_ROWS;
    if (columns != Columns() || rows != Rows())
        (void)resizeterm(rows, columns);
    (void)clearok(stdscr, TRUE); // terminals move what they show on their own
}

void Terminal::Show(const Grid& grid)
{
    if (!TakesMore())
        return;
    const bool hasColours = COLOR_PAIRS > ALARM && COLORS > 0;
    (void)erase();
    for (int row = 0; row < grid.Rows(); ++row)
        for (int column = 0; column < grid.Columns(); ++column)
            if (const Cell& cell = grid.At(column, row); cell != Cell {})
                WriteCell(column, row, cell, hasColours);
    (void)refresh();
}

std::optional<KeyPress> Terminal::ReadKey()
{
    int code = getch();
    while (code == KEY_RESIZE) // resizeterm says so to itself
        code = getch();
    if (code == ERR)
        return std::nullopt;
    return KeyOf(code);
}

// Where there is no second screen, what was drawn stays, and the shell goes on below it.
void Terminal::Leave()
{
    (void)wmove(stdscr, Rows() - 1, 0);
    (void)wclrtoeol(stdscr);
    if (TakesMore())
        (void)wrefresh(stdscr);
    (void)endwin();
}

void Terminal::Return()
{
    (void)reset_prog_mode();
    Resize();
}

bool UsesUtf8()
{
    (void)setlocale(LC_CTYPE, ""); // NOLINT(concurrency-mt-unsafe): before anything runs beside
    return std::string_view(nl_langinfo(CODESET)) == "UTF-8"; // NOLINT(concurrency-mt-unsafe)
}

bool EnvironmentWantsColour()
{
    return EnvironmentText("NO_COLOR").empty();
}

} // namespace arqctl::top
