#pragma once

#include <cstdio>
#include <cstdlib>

#include <unistd.h>

// Ends the run, and so makes the input a finding, unless the promise holds. Written to the descriptor: the
// streams lead nowhere while fuzzing.
inline void Require(bool holds, const char* promise)
{
    if (holds)
        return;
    (void)dprintf(STDERR_FILENO, "broken promise: %s\n", promise);
    std::abort();
}
