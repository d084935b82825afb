#pragma once

#include <string_view>

#include "arqctl/cli/session.h"

namespace arqctl {

// What became of a text for standard output.
enum class Written {
    Yes,
    NobodyReads, // the reader has gone, as in `arqctl ... | head`: a good end, and nothing to complain about
    Stopped, // the program was asked to end while the reader let it wait
    No // a full disk, say
};

// Writes the whole text at once, with nothing kept back, and never raises SIGPIPE. Once `stop` is readable it waits no
// longer for a reader that does not read. -1: for ever.
Written WriteOut(std::string_view text, int stop = -1);

// How the command ends after something else than Yes.
ExitStatus EndOfOutput(const Session& session, Written written);

} // namespace arqctl
