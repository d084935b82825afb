#pragma once

#include "base/unique_fd.h"

namespace demo {

// The signals that end the demo, as something to read: nothing is ever interrupted. Make it before any child starts; a
// child has its signals free again (Child).
class Signals {
public:
    Signals();
    int Fd() const { return m_fd.Get(); }
    // The number of the first one that came, 0 before.
    int First();

private:
    UniqueFd m_fd;
    int m_nFirst = 0;
};

// "SIGINT" and so on.
const char* SignalName(int number);

} // namespace demo
