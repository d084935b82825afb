// What is told of a run that fails: enough to see what was drawn, and to run it again.
#include <unistd.h>

#include <gtest/gtest.h>

#include "simulation/config.h"
#include "simulation/failure.h"

namespace simulation {

namespace {

// As the program reports; a death test looks at standard error.
[[noreturn]] void FailWith(const Config* config)
{
    (void)dup2(STDERR_FILENO, STDOUT_FILENO);
    TellSeed(4711);
    TellConfig(config);
    Fail(Outcome::BrokenInvariant, "%d is not 2", 1);
}

TEST(SimulationFailure, TellsWhatTheSeedHasDrawnAndHowToRepeatIt)
{
    const Config config(4711);
    EXPECT_EXIT(FailWith(&config), testing::ExitedWithCode(static_cast<int>(Outcome::BrokenInvariant)),
        "broken invariant: 1 is not 2\nseed 4711(.|\n)*ring [0-9]+,(.|\n)*faults for [0-9.]+ s, calm for [0-9.]+ s"
        "\nrepeat: simulation --seed 4711 --verbose\n");
}

TEST(SimulationFailure, TellsNoDrawingsTwice)
{
    EXPECT_EXIT(FailWith(nullptr), testing::ExitedWithCode(static_cast<int>(Outcome::BrokenInvariant)),
        "broken invariant: 1 is not 2\nseed 4711\nrepeat: simulation --seed 4711 --verbose\n");
}

} // namespace

} // namespace simulation
