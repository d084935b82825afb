#include "arqctl/core/loss_settings.h"

#include <gtest/gtest.h>

#include "arqctl/core/loss_texts.h"

namespace arqctl::loss_settings_tests {

namespace {

constexpr LossSettings RANDOM { .mode = 2, .minDrop = 2, .maxDrop = 2, .minDist = 50, .maxDist = 150 };

TEST(LossSettings, WithoutAFileTheDefaultsHold)
{
    EXPECT_EQ(ReadLossSettings(""), LossSettings());
    EXPECT_EQ(LossSettingsText({}), "1 packet withheld, 100 pass (0.99 %)");
}

TEST(LossSettings, EachKeyIsReadAndOfOneGivenTwiceTheLastHolds)
{
    EXPECT_EQ(
        ReadLossSettings("mode=7\nmin_drop=2\nmax_drop=2\nmin_dist=50\nmax_dist=150\nmode=2\n"), RANDOM);
}

// Each line with what the proxy makes of its mode.
TEST(LossSettings, LinesAreReadAsTheProxyReadsThem)
{
    const std::pair<const char*, int> lines[] {
        { "mode=2", 2 },
        { "  mode = 2 ", 2 },
        { "mode=2\r", 2 },
        { "1 mode x = 2 3", 2 },
        { "mode=-5", 5 },
        { "mode=5apples", 5 },
        { "mode=apples", 0 },
        { "mode=\"2\"", 2 },
        { "mode=\"2", 2 },
        { "mode=\"-2\"", -2 },
        { "mode=2=3", 2 },
        { "mode=99999999999999999999", -1 },
        { "mode=", 1 },
        { "mode==3", 1 },
        { "mode=\"\"", 1 },
        { "#mode=2", 1 },
        { "  # mode=2", 1 },
        { "mode 2", 1 },
        { "Mode=2", 1 },
        { "modes=2", 1 },
    };
    for (const auto& [line, mode] : lines)
        EXPECT_EQ(ReadLossSettings(line).mode, mode) << line;
}

TEST(LossSettings, AKeyWithAnEmptyValueBehindTakesTheDefault)
{
    EXPECT_EQ(ReadLossSettings("mode=2\nmode==\n").mode, 1);
    EXPECT_EQ(ReadLossSettings("mode=2\nmode=\n").mode, 2) << "no setting at all";
}

TEST(LossSettings, NothingIsReadBehindAZeroByteOrOfTooLargeAFile)
{
    EXPECT_EQ(ReadLossSettings(std::string_view("min_drop=3\n\0mode=2\n", 19)).mode, 1);
    const std::string large = "mode=2\n" + std::string(LARGEST_LOSS_FILE - 7, '#');
    EXPECT_EQ(ReadLossSettings(large).mode, 2);
    EXPECT_EQ(ReadLossSettings(large + "#").mode, 1);
}

TEST(LossSettings, WrittenOnesAreReadBackAndOtherLinesStay)
{
    const std::string text = WithLossSettings("# ours\nmode=1\n\nowner=lab\n mode = 9\nlast", RANDOM);
    EXPECT_EQ(text, "# ours\n\nowner=lab\nlast\nmode=2\nmin_drop=2\nmax_drop=2\nmin_dist=50\nmax_dist=150\n");
    EXPECT_EQ(ReadLossSettings(text), RANDOM);
    EXPECT_EQ(WithLossSettings(text, RANDOM), text);
}

TEST(LossSettings, AZeroByteDoesNotHideThem)
{
    EXPECT_EQ(ReadLossSettings(WithLossSettings(std::string_view("x=1\n\0y", 6), RANDOM)), RANDOM);
}

TEST(LossSettings, LimitsAreToldFromBothSides)
{
    EXPECT_EQ(LossSettingsProblem({}), "");
    EXPECT_EQ(LossSettingsProblem(RANDOM), "");
    EXPECT_EQ(LossSettingsProblem({ .mode = 0 }), "mode is 1 (fixed gaps) or 2 (random gaps)");
    EXPECT_NE(LossSettingsProblem({ .mode = 3 }), "");
    EXPECT_NE(LossSettingsProblem({ .minDrop = 0 }), "");
    EXPECT_EQ(LossSettingsProblem({ .minDrop = 1'000'000 }), "");
    EXPECT_NE(LossSettingsProblem({ .minDrop = 1'000'001 }), "");
    EXPECT_NE(LossSettingsProblem({ .minDist = 0 }), "");
    EXPECT_EQ(LossSettingsProblem({ .minDist = 1 }), "");
    EXPECT_NE(LossSettingsProblem({ .minDist = 1'000'001 }), "");
    EXPECT_EQ(LossSettingsProblem({ .minDist = 300 }), "") << "mode 1 has no longest gap";
    EXPECT_NE(LossSettingsProblem({ .mode = 2, .minDist = 201 }), "");
    EXPECT_EQ(LossSettingsProblem({ .mode = 2, .minDist = 200 }), "");
    EXPECT_NE(LossSettingsProblem({ .mode = 2, .maxDist = 1'000'001 }), "");
}

TEST(LossSettings, PeriodAndShareAreThoseOfTheGate)
{
    EXPECT_EQ(LongestLossPeriod({}), 101U);
    EXPECT_EQ(LongestLossPeriod(RANDOM), 153U);
    EXPECT_EQ(LongestLossPeriod({ .minDrop = 0, .minDist = -7 }), 2U);
    EXPECT_EQ(LongestLossPeriod({ .mode = 2, .minDrop = INT32_MAX, .maxDist = INT32_MAX }), 4294967295U);
    EXPECT_DOUBLE_EQ(LossShare({}), 1.0 / 101);
    EXPECT_DOUBLE_EQ(LossShare(RANDOM), 2.0 / 103); // gaps of 51 to 151
    EXPECT_DOUBLE_EQ(LossShare({ .mode = 3 }), 0);
    EXPECT_DOUBLE_EQ(LossShare({ .minDrop = 0 }), 0);
    EXPECT_EQ(LossSettingsText(RANDOM), "2 packets withheld, 51 to 151 pass at random (1.94 %)");
    EXPECT_EQ(LossSettingsText({ .minDist = 1 }), "1 packet withheld, 1 passes (50.00 %)");
    EXPECT_EQ(LossSettingsText({ .mode = 0 }), "nothing is withheld");
}

} // namespace

} // namespace arqctl::loss_settings_tests
