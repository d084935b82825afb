#include "demo/options.h"

#include <charconv>
#include <string_view>

#include "demo/format.h"

namespace demo {

namespace {

constexpr int FEWEST_SECONDS = 5;
constexpr int MOST_SECONDS = 3600;

constexpr const char* USAGE
    = "usage: ./demo [--seconds N] [--picture | --builtin] [--plain] [--no-color] [--out FOLDER]\n";
constexpr const char* HELP
    = R"(Sends a live picture through tx_proxy to two receivers behind the same bad line: A asks again for what it
misses, B does not. Shows both while it runs and ends with a verdict. Leaves pictures and figures in demo-out/.

  --seconds N    length of the run, 5 to 3600 (default: 30)
  --picture      a real encoder's picture; as root ./demo installs ffmpeg for it
  --builtin      the built-in test picture, also where ffmpeg or GStreamer is installed
  --plain        a line a second instead of the live view; so it is without a terminal
  --no-color     no colours; so it is with NO_COLOR set
  --no-sandbox   on the machine's own loopback and /dev, not in namespaces of its own
  --out FOLDER   where pictures and figures go (default: demo-out)
  --help         this text

  ./demo                        the whole show
  ./demo --seconds 10 --plain   a short one for a log
  ./demo --picture              with a real encoder and decoder

TX_PROXY_BIN names a proxy to use instead of building one.
Exit status: 0 when A got back all that it could, each packet what the source sent; 1 when not, the reason in the last
line; 2 wrong usage; 128 + number when a signal ended it.
)";

Ending Wrong(const std::string& what)
{
    return { 2, std::string(USAGE) + "./demo: " + what + "; try ./demo --help\n" };
}

bool ParseSeconds(std::string_view text, int& seconds)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    return error == std::errc() && end == text.data() + text.size() && seconds >= FEWEST_SECONDS
        && seconds <= MOST_SECONDS;
}

// An option without a value. False: there is none of that name.
bool TakeFlag(std::string_view name, Options& options)
{
    if (name == "--picture")
        options.source = Source::Picture;
    else if (name == "--builtin")
        options.source = Source::BuiltIn;
    else if (name == "--plain")
        options.wantsView = false;
    else if (name == "--no-color" || name == "--no-colour")
        options.wantsColor = false;
    else if (name == "--no-sandbox")
        options.wantsSandbox = false;
    else
        return false;
    return true;
}

// An option with a value. What is wrong, empty if nothing is.
std::string TakeValue(std::string_view name, std::string_view value, Options& options)
{
    if (name == "--seconds" && !ParseSeconds(value, options.seconds))
        return "--seconds must be a whole number from 5 to 3600, not '" + std::string(value) + "'";
    if (name == "--out" && value.empty())
        return "--out needs a folder";
    if (name == "--out")
        options.folder = value;
    return {};
}

} // namespace

std::variant<Options, Ending> ParseOptions(int count, const char* const* arguments)
{
    Options options;
    for (int index = 1; index < count; ++index) {
        const std::string_view word = arguments[index];
        if (word == "--help" || word == "-h")
            return Ending { 0, std::string(USAGE) + "\n" + HELP };
        if (TakeFlag(word, options))
            continue;
        const size_t equals = word.find('=');
        const std::string_view name = word.substr(0, equals);
        if (name != "--seconds" && name != "--out")
            return Wrong(Format("there is no option '%s'", arguments[index]));
        const bool isApart = equals == std::string_view::npos; // the value is the next word
        if (isApart && ++index == count)
            return Wrong(std::string(name) + " needs a value");
        const std::string wrong
            = TakeValue(name, isApart ? arguments[index] : word.substr(equals + 1), options);
        if (!wrong.empty())
            return Wrong(wrong);
    }
    return options;
}

} // namespace demo
