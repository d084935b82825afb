#pragma once

#include <algorithm>
#include <charconv>
#include <string_view>
#include <vector>

namespace arqctl {

// Takes the first line off a text, without its line feed.
inline std::string_view TakeLine(std::string_view& text)
{
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}

// The fields of a line, blanks and tabs between them.
inline std::vector<std::string_view> CutFields(std::string_view line)
{
    constexpr std::string_view BLANKS = " \t\n";
    std::vector<std::string_view> fields;
    for (size_t start = line.find_first_not_of(BLANKS); start != std::string_view::npos;
         start = line.find_first_not_of(BLANKS)) {
        line.remove_prefix(start);
        fields.push_back(line.substr(0, line.find_first_of(BLANKS)));
        line.remove_prefix(fields.back().size());
    }
    return fields;
}

// A text that is nothing but a number. False leaves the number as it was.
template <typename Number>
bool ReadWhole(std::string_view text, Number& number, int base = 10)
{
    Number value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc() || stop != end)
        return false;
    number = value;
    return true;
}

} // namespace arqctl
