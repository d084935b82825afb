#include "arqlink/core/script.h"

#include "arqlink/core/random.h"
#include "arqlink/core/settings_text.h"

#include <gtest/gtest.h>
#include <iterator>
#include <string>

namespace arqlink {
namespace {

Script Parsed(const char* text)
{
    Script script;
    std::string problem;
    EXPECT_TRUE(script.Parse(text, problem)) << problem;
    return script;
}

std::string Problem(const char* text)
{
    Script script;
    std::string problem;
    EXPECT_FALSE(script.Parse(text, problem)) << text;
    EXPECT_TRUE(script.IsEmpty());
    return problem;
}

// What both directions are at a time: "down | up".
class Directions {
public:
    std::string At(Script& script, int64_t elapsedUs)
    {
        m_bChanged = script.Advance(elapsedUs, m_down, m_up);
        return SettingsText(m_down) + " | " + SettingsText(m_up);
    }
    bool HasChanged() const { return m_bChanged; }

private:
    Settings m_down;
    Settings m_up;
    bool m_bChanged = false;
};

TEST(Script, EachLineHoldsFromItsTimeOn)
{
    Script script = Parsed("# a picture of the day\n"
                           "0s both clean delay 20ms\n"
                           "\n"
                           "8s down loss 5%   # the worse direction\n"
                           "AT 16.2s: up blackout on\r\n"
                           "at 20s both clean");
    Directions directions;
    EXPECT_EQ(directions.At(script, 0), "delay 20ms | delay 20ms");
    EXPECT_TRUE(directions.HasChanged());
    EXPECT_EQ(script.NextUs(), 8'000'000);
    EXPECT_EQ(directions.At(script, 7'999'999), "delay 20ms | delay 20ms");
    EXPECT_FALSE(directions.HasChanged());
    EXPECT_EQ(directions.At(script, 8'000'000), "loss 5% delay 20ms | delay 20ms");
    EXPECT_EQ(directions.At(script, 16'200'000), "loss 5% delay 20ms | blackout on delay 20ms");
    EXPECT_EQ(directions.At(script, 20'000'000), "delay 20ms | delay 20ms");
    EXPECT_EQ(script.NextUs(), NEVER);
    EXPECT_FALSE(script.HasEnded());
}

TEST(Script, ALateLookAppliesEveryLineThatWasMissedInOrder)
{
    Script script = Parsed("1s both loss 1% jitter 1ms\n1s both loss 2%\n2s up loss 3%");
    Directions directions;
    EXPECT_EQ(directions.At(script, 5'000'000), "loss 2% jitter 1ms | loss 3% jitter 1ms");
}

TEST(Script, RepeatBeginsAgainAndKeepsWhatNoLineChanges)
{
    Script script = Parsed("1s down loss 1%\n2s down loss 2%\n3s repeat");
    Directions directions;
    EXPECT_EQ(directions.At(script, 2'000'000), "loss 2% | clean");
    EXPECT_EQ(script.NextUs(), 3'000'000);
    EXPECT_EQ(directions.At(script, 3'000'000), "loss 2% | clean");
    EXPECT_EQ(script.NextUs(), 4'000'000);
    EXPECT_EQ(directions.At(script, 4'000'000), "loss 1% | clean");
    EXPECT_EQ(directions.At(script, 3000'000'000), "loss 2% | clean");
    EXPECT_EQ(script.NextUs(), 3001'000'000);
}

TEST(Script, EndEndsIt)
{
    Script script = Parsed("0s both loss 1%\n30s end\n");
    Directions directions;
    (void)directions.At(script, 29'999'999);
    EXPECT_FALSE(script.HasEnded());
    EXPECT_EQ(script.NextUs(), 30'000'000);
    (void)directions.At(script, 30'000'000);
    EXPECT_TRUE(script.HasEnded());
    EXPECT_EQ(script.NextUs(), NEVER);
}

TEST(Script, WhatIsWrongIsNamedWithItsLine)
{
    EXPECT_EQ(Problem("0s both clean\n8 both loss 5%"), "line 2: '8' is not a time such as 8s or 16.2s");
    EXPECT_EQ(Problem("8s both loss 5x"), "line 1: loss '5x' is not a ratio such as 5% or 0.05");
    EXPECT_EQ(Problem("8s both loss"), "line 1: loss '' is not a ratio such as 5% or 0.05");
    EXPECT_EQ(Problem("\n# x\n8s both speed 5"), "line 3: there is no setting 'speed'");
    EXPECT_EQ(Problem("8s loss 5%"),
        "line 1: after the time comes down, up or both, or as the last line repeat or end, not 'loss'");
    EXPECT_EQ(Problem("8s"),
        "line 1: after the time comes down, up or both, or as the last line repeat or end, not ''");
    EXPECT_EQ(Problem("8s down"), "line 1: after the direction comes a setting such as loss 5%, or clean");
    EXPECT_EQ(Problem("8s both clean\n7s both clean"), "line 2: '7s' is before the line above");
    EXPECT_EQ(Problem("1s both clean\n2s repeat\n3s both clean"), "line 3: nothing may follow repeat or end");
    EXPECT_EQ(Problem("0s both clean\n9ms repeat"), "line 2: repeat needs a time of 10ms or more");
    EXPECT_EQ(Problem(""), "there is no line in it; write for example: 8s both loss 5%");
    EXPECT_EQ(Problem("# nothing\n30s end"), "there is no line in it; write for example: 8s both loss 5%");
}

// Lines as they should be, now and then with a word that should not be there: some are refused, some are not, and
// what is taken can be run.
TEST(Script, LinesWithOddWordsAreRefusedOrCanBeRun)
{
    constexpr const char* LINES[][4] = { { "1s", "both", "loss", "5%" }, { "1s:", "down", "burst", "1%,20%" },
        { "2s", "up", "drop-seq", "7,9-2x3" }, { "2s", "both", "clean", "delay 20ms" },
        { "3s", "both", "rate", "8M queue 64k" }, { "3s", "up", "blackout", "on" },
        { "4s", "repeat", "", "" }, { "1h", "end", "", "" } };
    constexpr const char* ODD[] = { "at", "x", "#", ",", "\t", "\r", "\n", "-1", "\x80", "off", "0", "5%",
        "clean", "99999999999999999999h", "end" };
    const Draws draws(1, Purpose::Loss);
    uint64_t n = 0;
    int taken = 0;
    for (int i = 0; i < 5000; i++) {
        std::string text;
        for (int64_t lines = draws.UpTo(n++, 3); lines >= 0; lines--) {
            for (const char* word : LINES[draws.UpTo(n++, std::size(LINES) - 1)])
                text += std::string(draws.Chance(n++, 0.03) ? ODD[draws.UpTo(n++, std::size(ODD) - 1)] : word)
                    + " ";
            text += "\n";
        }
        Script script;
        std::string problem;
        if (!script.Parse(text, problem)) {
            ASSERT_NE(problem, "") << text;
            continue;
        }
        taken++;
        Directions directions;
        (void)directions.At(script, 4'000'000'000);
        ASSERT_GT(script.NextUs(), 4'000'000'000) << text;
    }
    EXPECT_GT(taken, 500);
    EXPECT_LT(taken, 4500);
}

TEST(Script, AScriptThatIsWrongLeavesTheOneThatRuns)
{
    Script script = Parsed("1s both loss 1%");
    std::string problem;
    EXPECT_FALSE(script.Parse("x", problem));
    EXPECT_EQ(script.NextUs(), 1'000'000);
}

} // namespace
} // namespace arqlink
