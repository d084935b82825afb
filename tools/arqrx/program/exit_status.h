#pragma once

namespace arqrx {

// What the program ends with. They are interface: scripts read them.
enum class ExitStatus : int {
    Good = 0,
    Loss = 1, // more was lost than --fail-on-loss or --max-loss allow
    Usage = 2, // options that are wrong or do not go together
    NoMedia = 3, // not one packet ever came
    NoStart = 4, // a name, a port, a file or memory that could not be had
    OutputFailed = 5 // an output went away on the run: disk full, reader gone
};

} // namespace arqrx
