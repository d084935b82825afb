#pragma once

#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace demo {

// Tidies up when the demo ends in whatever way, also when it is killed: a process of its own that waits for its end, then
// writes the text that gives the terminal back, removes the files, and ends too. Threads: one.
class Janitor {
public:
    ~Janitor();
    Janitor() = default;
    Janitor(const Janitor&) = delete;
    Janitor& operator=(const Janitor&) = delete;

    // `goodbye` goes to `terminal` (-1: nobody). Start it while the demo has no other children.
    void Start(int terminal, const std::string& goodbye, const std::vector<std::string>& files);
    // Now, not only at the end: waits until all is tidy.
    void Finish();

private:
    UniqueFd m_life; // the other end of it sees when we are gone
    int m_nPid = -1;
};

} // namespace demo
