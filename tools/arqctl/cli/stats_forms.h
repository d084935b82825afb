#pragma once

#include <string>

#include "arqctl/core/figures.h"

namespace arqctl {

// The forms in which figures are printed; each text is whole lines.

enum class StatsForm { People, Csv, Json };

// One reading for people: a figure a line, the values below each other, and then the receivers.
std::string ReadingText(const Sample& sample);

// The lines of a watch for people, headings first. What is not known is a dash.
std::string WatchHeading();
std::string WatchLine(const Sample& sample);
// A line that tells of an event: the time of day and the text.
std::string NoteLine(double unixTime, const std::string& text);

// RFC 4180, but with line feeds alone. What is not known is an empty field.
std::string CsvHeading();
std::string CsvLine(const Sample& sample);

// What is not known is left out. `problem`: why there was no answer, "" with one.
std::string JsonLine(const Sample& sample, const std::string& problem = "");

} // namespace arqctl
