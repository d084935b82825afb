#include "common_cli/help_formatter.h"

#include <algorithm>
#include <sstream>
#include <utility>

namespace common {

namespace {

constexpr size_t COLUMNS = 79;
constexpr size_t OPTION_COLUMN = 30; // where descriptions begin
constexpr size_t COMMAND_COLUMN = 14;

// The words of `text` in lines from `begin` on; the first one continues `head`.
std::string Wrap(std::string head, const std::string& text, size_t begin)
{
    const std::string indent(begin, ' ');
    if (head.size() + 1 > begin)
        head += "\n" + indent;
    else
        head.resize(begin, ' ');
    std::istringstream words(text);
    std::string all = head;
    size_t column = begin;
    for (std::string word; words >> word;) {
        if (column > begin && column + 1 + word.size() > COLUMNS) {
            all += "\n" + indent;
            column = begin;
        }
        const bool isFirst = column == begin;
        all += isFirst ? word : " " + word;
        column += word.size() + (isFirst ? 0 : 1);
    }
    return all + "\n";
}

// "ADDRESS...", in brackets when it may be left out.
std::string PositionalUsage(const CLI::Option* option)
{
    const bool isMany = option->get_expected_max() > 1;
    const std::string name = option->get_type_name() + (isMany ? "..." : "");
    return option->get_required() ? name : "[" + name + "]";
}

std::string CommandUsage(const CLI::App* command, const std::string& name)
{
    std::string text = name + " [options]";
    for (const CLI::Option* option :
        command->get_options([](const CLI::Option* o) { return o->get_positional(); }))
        text += " " + PositionalUsage(option);
    return text;
}

} // namespace

HelpFormatter::HelpFormatter(std::vector<std::string> usage) : m_usage(std::move(usage)) {}

std::string HelpFormatter::make_usage(const CLI::App* app, std::string name) const
{
    if (app->get_parent())
        return "\nUsage: " + CommandUsage(app, name) + "\n";
    std::string text;
    for (const std::string& line : m_usage)
        text += (text.empty() ? "\nUsage: " : "       ") + line + "\n";
    return text;
}

std::string HelpFormatter::make_option(const CLI::Option* option, bool isPositional) const
{
    const std::string type = option->get_type_name();
    const std::string name
        = isPositional ? type : option->get_name(false, true) + (type.empty() ? "" : " " + type);
    return Wrap("  " + name, option->get_description(), OPTION_COLUMN);
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

std::string HelpFormatter::make_subcommand(const CLI::App* command) const
{
    return Wrap("  " + command->get_name(), command->get_description(), COMMAND_COLUMN);
}

std::string HelpFormatter::make_footer(const CLI::App* app) const
{
    const std::string text = app->get_footer();
    if (!app->get_parent())
        return text + "\n";
    const std::string program = app->get_parent()->get_name();
    return text + (text.empty() ? "" : "\n") + "The program's own options may stand here too: " + program
        + " --help\n";
}

} // namespace common
