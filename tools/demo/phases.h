#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace demo {

// A stretch of the run in which the lines behave alike.
struct Phase {
    int64_t startUs; // since the beginning
    int64_t endUs;
    std::string name; // "5 % random"
    int level; // how bad: 0 clean, 1 lossy, 2 nothing comes through
};

// clean, 5 % random loss, a burst of 200 ms, clean: over a run of that length.
std::vector<Phase> Phases(int64_t lengthUs);

// The same as a script of arqlink's, for both directions, with a delay of 20 ms each way.
std::string LineScript(const std::vector<Phase>& phases);

// The phase at that time; the last one after the end.
const Phase& PhaseAt(const std::vector<Phase>& phases, int64_t timeUs);

} // namespace demo
