#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "arqctl/core/receiver_report.h"
#include "arqctl/core/receiver_table.h"

namespace arqctl {

// What a receiver's report looks like on the way, and in this program's own answers.

constexpr size_t LONGEST_REPORT = 1400; // bytes: a datagram that goes through every path in one piece

// Reads a datagram from whoever sent it: one JSON object of version 1. Fields that are not known are passed over, whatever
// they hold. Anything else is refused as a whole, and the report stays as it was; `problem` says why, as a sentence
// without an end. Texts come out clean (CleanText). Never throws for what it reads, nor nests deeper than 8.
bool ParseReceiverReport(std::string_view datagram, ReceiverReport& report, std::string& problem);

// A reporter as the API shows it: the fields of its report as far as they are known, with its label as the name,
// "address", "age_s", "state" and "restarts".
nlohmann::ordered_json ReportObject(const ReporterView& reporter);

} // namespace arqctl
