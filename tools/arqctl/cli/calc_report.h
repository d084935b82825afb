#pragma once

#include <string>

#include "arqctl/core/calc.h"

namespace arqctl {

// The results for people, several lines with the commands to start at the end.
std::string CalcText(const CalcInput& input, const CalcResult& result);

// The same as one object; docs/arqctl.md has its fields.
std::string CalcJson(const CalcInput& input, const CalcResult& result);

// "tx_proxy -q 1024 -G 8589000 5000", and the receiver's counterpart.
std::string ProxyCommand(const CalcResult& result);
std::string ReceiverCommand(const CalcInput& input, const CalcResult& result);

} // namespace arqctl
