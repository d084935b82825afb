#pragma once

#include <cstdio>

// Writes the prefix of the replicator's log lines, "Mmm dd hh:mm:ss: " in local time.
void LogTimestamp(FILE* stream);

// Begins a stamped line on standard error and keeps other threads' lines out of it until the block ends.
class StampedLine {
public:
    StampedLine()
    {
        flockfile(stderr);
        LogTimestamp(stderr);
    }
    StampedLine(const StampedLine&) = delete;
    StampedLine& operator=(const StampedLine&) = delete;
    ~StampedLine() { funlockfile(stderr); }
};
