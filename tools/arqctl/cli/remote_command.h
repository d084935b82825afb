#pragma once

#include <string>
#include <vector>

#include "arqctl/cli/session.h"

namespace arqctl {

// For commands that look at the machine itself: runs `arqctl` on the machine of --via, with these words (the command and
// its options) and the session's own options, and gives on what it says. Its status is that of the command over there.
// The environment's ARQCTL_THERE names the program where it is not found as "arqctl" there.
ExitStatus RunThere(const Session& session, const std::vector<std::string>& words);

} // namespace arqctl
