#pragma once

#include <string>

#include "demo/view.h"

namespace demo {

// The run as a table, a row a second, for whoever has no terminal.
std::string TableHead();
std::string TableRow(const std::string& time, const ViewState& state);

} // namespace demo
