#include "arqrx/cli/help_formatter.h"

#include <algorithm>
#include <sstream>

namespace arqrx {

namespace {

constexpr size_t COLUMNS = 79;
constexpr size_t TEXT_COLUMN = 30; // where descriptions begin

// The words of `text` in lines from TEXT_COLUMN on; the first one continues `head`.
std::string Wrap(std::string head, const std::string& text)
{
    const std::string indent(TEXT_COLUMN, ' ');
    if (head.size() + 1 > TEXT_COLUMN)
        head += "\n" + indent;
    else
        head.resize(TEXT_COLUMN, ' ');
    std::istringstream words(text);
    std::string all = head;
    size_t column = TEXT_COLUMN;
    for (std::string word; words >> word;) {
        if (column > TEXT_COLUMN && column + 1 + word.size() > COLUMNS) {
            all += "\n" + indent;
            column = TEXT_COLUMN;
        }
        const bool isFirst = column == TEXT_COLUMN;
        all += isFirst ? word : " " + word;
        column += word.size() + (isFirst ? 0 : 1);
    }
    return all + "\n";
}

} // namespace

std::string HelpFormatter::make_usage(const CLI::App*, std::string) const
{
    return "\nUsage: arqrx [options] PROXY[:PING_PORT]\n"
           "       arqrx [options] --group ADDRESS:PORT [PROXY[:PING_PORT]]\n"
           "       arqrx [options] --listen [ADDRESS:]PORT\n";
}

std::string HelpFormatter::make_option(const CLI::Option* option, bool isPositional) const
{
    const std::string type = option->get_type_name();
    const std::string name
        = isPositional ? type : option->get_name(false, true) + (type.empty() ? "" : " " + type);
    return Wrap("  " + name, option->get_description());
}

std::string HelpFormatter::make_group(
    std::string group, bool isPositional, std::vector<const CLI::Option*> options) const
{
    // The library puts an empty line between groups, but not around the first and the positionals.
    const bool isFirst = isPositional || group == "Options";
    std::string text = (isFirst ? "\n" : "") + group + ":\n";
    for (const CLI::Option* option : options)
        text += make_option(option, isPositional);
    return text;
}

} // namespace arqrx
