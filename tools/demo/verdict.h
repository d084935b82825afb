#pragma once

#include <string>
#include <vector>

#include "demo/ledger.h"

namespace demo {

// What speaks against the run, a sentence's part each; nothing when it proves that A gets back what B loses.
std::vector<std::string> Faults(const Ledger& ledger);

// The last line of a good run, without the word before it.
std::string Summary(const Ledger& ledger);

} // namespace demo
