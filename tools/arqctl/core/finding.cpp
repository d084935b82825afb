#include "arqctl/core/finding.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace arqctl {

namespace {

std::string WithPlaces(double number, int places)
{
    std::array<char, 400> text; // the largest double has 309 digits
    const auto end
        = std::to_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed, places).ptr;
    return std::string(text.data(), end);
}

// Two or three digits that say something.
std::string Short(double number)
{
    return WithPlaces(number, number < 1 ? 2 : number < 100 ? 1 : 0);
}

} // namespace

const char* VerdictText(Verdict verdict)
{
    switch (verdict) {
    case Verdict::NotApplicable:
        return "not applicable";
    case Verdict::Good:
        return "good";
    case Verdict::Warning:
        return "warning";
    case Verdict::Fault:
        return "fault";
    }
    return "";
}

Verdict Worst(const std::vector<Finding>& findings)
{
    Verdict worst = Verdict::Good;
    for (const Finding& finding : findings)
        worst = std::max(worst, finding.verdict);
    return worst;
}

std::string Piece(uint64_t number)
{
    constexpr size_t GROUP = 3;
    std::string text = std::to_string(number);
    for (size_t at = text.size(); at > GROUP; at -= GROUP)
        text.insert(at - GROUP, 1, ',');
    return text;
}

std::string Piece(int64_t number)
{
    const auto size = number < 0 ? 0 - static_cast<uint64_t>(number) : static_cast<uint64_t>(number);
    return (number < 0 ? "-" : "") + Piece(size);
}

std::string SecondsText(double seconds)
{
    return Short(seconds) + " s";
}

} // namespace arqctl
