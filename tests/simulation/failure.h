#pragma once

#include <cstdint>
#include <cstdio>

namespace simulation {

struct Config;

// How a run ends, as the program's exit status. A crash ends it by its signal, a sanitizer's find by its own.
enum class Outcome : int { Fine = 0, Usage = 2, BrokenInvariant = 10, LostLiveness = 11, NotRepeatable = 12 };

// Prints what was wrong, the seed with what it has drawn, the virtual time, the last events and how to repeat the
// run, and ends the program with that status.
[[noreturn]] void Fail(Outcome outcome, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Ends the program unless `isTrue`: something that must always hold does not.
#define REQUIRE_THAT(isTrue, ...) \
    do { \
        if (!(isTrue)) \
            ::simulation::Fail(::simulation::Outcome::BrokenInvariant, __VA_ARGS__); \
    } while (false)

// Says which seed runs, for the report of a failure or of a crash.
void TellSeed(uint64_t seed);
// Says what it has drawn, for the same report; null when that is printed already or the run is over.
void TellConfig(const Config* config);
// Lets a crash or a sanitizer's find name the seed too.
void ReportCrashes();

// What the proxy prints goes nowhere from now on, unless `isShown`.
void SeparateProxyOutput(bool isShown);
// The simulation's own standard output.
FILE* Report();

} // namespace simulation
