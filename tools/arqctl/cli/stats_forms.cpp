#include "arqctl/cli/stats_forms.h"

#include <fmt/format.h>

#include <cmath>
#include <ctime>
#include <nlohmann/json.hpp>

namespace arqctl {

namespace {

constexpr int LABEL_WIDTH = 17;

std::string TimeOfDay(double unixTime)
{
    const auto seconds = static_cast<time_t>(unixTime);
    tm parts {};
    (void)localtime_r(&seconds, &parts);
    return fmt::format("{:02}:{:02}:{:02}", parts.tm_hour, parts.tm_min, parts.tm_sec);
}

// A thousandth is enough, and what a double has behind it only fills lines.
double Rounded(double number)
{
    return std::round(number * 1000) / 1000;
}

nlohmann::ordered_json JsonValue(const FigureValue& value)
{
    if (const auto* number = std::get_if<double>(&value))
        return Rounded(*number);
    return std::visit([](const auto& known) { return nlohmann::ordered_json(known); }, value);
}

} // namespace

std::string ReadingText(const Sample& sample)
{
    std::string text;
    for (const Figure& figure : Figures()) {
        const auto value = figure.value(sample);
        if (value && !figure.label.empty())
            text += fmt::format("{:<{}}{}\n", figure.label, LABEL_WIDTH, PeopleText(figure, *value));
    }
    for (const std::string& receiver : sample.now.statistics.receivers)
        text += fmt::format("{:<{}}{}\n", "", LABEL_WIDTH, receiver);
    return text;
}

std::string WatchHeading()
{
    std::string text = "time    ";
    for (const Column& column : Columns())
        text += fmt::format(" {:>{}}", column.heading, column.width);
    return text + "\n";
}

std::string WatchLine(const Sample& sample)
{
    std::string text = TimeOfDay(sample.unixTime);
    for (const Column& column : Columns()) {
        const auto value = column.figure.value(sample);
        text += fmt::format(" {:>{}}", value ? PeopleText(column.figure, *value) : "-", column.width);
    }
    return text + "\n";
}

std::string NoteLine(double unixTime, const std::string& text)
{
    return TimeOfDay(unixTime) + " " + text + "\n";
}

std::string CsvHeading()
{
    std::string text;
    for (const Figure& figure : Figures())
        text += fmt::format("{}{}", text.empty() ? "" : ",", figure.key);
    return text + "\n";
}

std::string CsvLine(const Sample& sample)
{
    std::string text;
    for (const Figure& figure : Figures()) {
        const auto value = figure.value(sample);
        text += (value ? RawText(*value) : "") + ",";
    }
    text.back() = '\n';
    return text;
}

std::string JsonLine(const Sample& sample, const std::string& problem)
{
    nlohmann::ordered_json object;
    for (const Figure& figure : Figures())
        if (const auto value = figure.value(sample))
            object[std::string(figure.key)] = JsonValue(*value);
    if (!problem.empty())
        object["error"] = problem;
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

} // namespace arqctl
