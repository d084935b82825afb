#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "arqctl/core/meter.h"

namespace arqctl {

// What `arqctl stats` shows of a proxy, described once: all forms of output are made of this table.

// One answer of a proxy, or that there was none, and what the answer before it said.
struct Sample {
    const Reading& now;
    double unixTime = 0; // seconds
    int64_t atUs = 0; // monotonic
    std::optional<Totals>
        before; // empty where there is no interval: the first answer, and that of another process
    int64_t beforeUs = 0;
    bool isWatched = false; // there are more than this one
};

using FigureValue = std::variant<bool, uint64_t, double, std::vector<std::string>>;

enum class FigureKind { Plain, PerSecond, BitRate, Seconds };

struct Figure {
    std::string_view key; // in JSON and CSV: interface, never renamed
    std::string_view label; // in front of the value of a single reading, for people; "" where it has none
    FigureKind kind;
    // Empty where the value is not known: a proxy that does not answer has neither counts nor rates.
    std::optional<FigureValue> (*value)(const Sample& sample);
};

// A column of the lines that a watch prints for people.
struct Column {
    const Figure& figure;
    std::string_view heading;
    int width;
};

// In the order of the columns of CSV; new ones are added at the end.
std::span<const Figure> Figures();

std::span<const Column> Columns();

// For programs: no rounded units, rates and times to a thousandth, addresses with blanks between them, 1 and 0.
std::string RawText(const FigureValue& value);

// For people: "9.87 Mbit/s", "812.3", "3.2 s".
std::string PeopleText(const Figure& figure, const FigureValue& value);

} // namespace arqctl
