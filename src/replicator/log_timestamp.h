#pragma once

#include <cstdio>

// Writes the prefix of the replicator's log lines, "Mmm dd hh:mm:ss: " in local time.
void LogTimestamp(FILE* stream);

// Writes the prefix and then the text, formatted as printf does, to standard error. No other thread's output
// comes in between; the text brings its own line end.
//
// Threads: any; also one that holds a lock, as it waits for nothing but standard error itself.
void LogStamped(const char* format, ...) __attribute__((format(printf, 1, 2)));
