#pragma once

#include "base/unique_fd.h"

namespace common {

// A descriptor that becomes readable when the program is asked to end (SIGINT, SIGTERM). From then on these two signals
// do nothing else, so it is made before any thread.
UniqueFd OpenStopSignal();

// Whoever started the program wants it to outlive the terminal (nohup): it was told to ignore SIGHUP.
bool OutlivesTerminal();

} // namespace common
