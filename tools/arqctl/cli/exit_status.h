#pragma once

namespace arqctl {

// What the program ends with. They are interface: scripts read them.
enum class ExitStatus : int {
    Good = 0, // done, or nothing found
    NotDone = 1, // the proxy answered, and what was asked for is not so; doctor: a fault was found
    Usage = 2, // options that are wrong or do not go together
    NoProxy = 3, // no proxy there, or no right to speak to it
    BadAnswer = 4, // no answer in time, half of one, or another program's
    NoStart = 5, // something of this program's own is missing: a port, a file, ssh
    AlreadySo
    = 6 // nothing was to be done: the receiver was there before, or is not there; doctor: warnings only
};

} // namespace arqctl
