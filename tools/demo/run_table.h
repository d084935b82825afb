#pragma once

#include <string>
#include <vector>

#include "demo/history.h"
#include "demo/phases.h"

namespace demo {

// The run's figures as CSV (RFC 4180): a line for each tenth of a second in which the source sent.
std::string RunTable(const History& history, const std::vector<Phase>& phases);

} // namespace demo
