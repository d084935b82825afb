#pragma once

#include <csignal>

#include "base/unique_fd.h"

namespace common {

// Those that ask a program to end: SIGINT, SIGTERM, and SIGHUP unless whoever started it wants it to outlive the terminal
// (nohup).
sigset_t StopSignals();

// A descriptor that becomes readable when one of them comes. From then on they do nothing else, so it is made before any
// thread.
UniqueFd OpenStopSignal();

} // namespace common
