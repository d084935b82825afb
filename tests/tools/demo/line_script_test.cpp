#include <gtest/gtest.h>

#include "arqlink/core/script.h"
#include "demo/phases.h"

TEST(LineScript, IsReadByTheLinesOwnParserAndDoesWhatThePhasesSay)
{
    const auto phases = demo::Phases(10'000'000);
    arqlink::Script script;
    std::string problem;
    ASSERT_TRUE(script.Parse(demo::LineScript(phases), problem)) << problem;
    arqlink::Settings down, up;
    for (const demo::Phase& phase : phases) {
        (void)script.Advance(phase.startUs, down, up);
        for (const arqlink::Settings& direction : { down, up }) {
            EXPECT_EQ(direction.delayUs, 20'000);
            EXPECT_EQ(direction.blackout, phase.level == 2);
            EXPECT_EQ(direction.loss, phase.level == 1 ? 0.05 : phase.level == 2 ? direction.loss : 0);
        }
    }
    EXPECT_EQ(script.NextUs(), arqlink::NEVER);
}
