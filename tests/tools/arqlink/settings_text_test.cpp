#include "arqlink/core/settings_text.h"

#include "line_fixture.h"

#include <gtest/gtest.h>
#include <string>

namespace arqlink {
namespace {

std::string Problem(const char* name, const char* value)
{
    Settings settings = Written({ { "loss", "1%" } });
    std::string problem;
    EXPECT_FALSE(ApplySetting(settings, name, value, problem)) << name << ' ' << value;
    EXPECT_EQ(settings, Written({ { "loss", "1%" } }));
    return problem;
}

TEST(SettingsText, EverySettingIsReadAndWrittenAsTheSame)
{
    const Settings settings = Written({ { "blackout", "on" }, { "loss", "5%" },
        { "burst", "1%,25%,90%,0.5%" }, { "drop-seq", "7,100-120,65530-5x3" }, { "delay", "20ms" },
        { "jitter", "1500us" }, { "reorder", "30%" }, { "duplicate", "2%" }, { "corrupt", "0.1%" },
        { "rate", "8M" }, { "queue", "64k" } });
    const std::string text = SettingsText(settings);
    EXPECT_EQ(text,
        "blackout on loss 5% burst 1%,25%,90%,0.5% drop-seq 7,100-120,65530-5x3 delay 20ms jitter 1500us "
        "reorder 30% duplicate 2% corrupt 0.1% rate 8000000 queue 64000");
    EXPECT_EQ(SettingsText({}), "clean");
    EXPECT_EQ(SettingNames().size(), 11U);
}

TEST(SettingsText, ASmallRatioIsShownAsItMayBeWritten)
{
    for (const char* ratio : { "0.0000001%", "0.00001234567891%", "7%", "0.07%" }) {
        const Settings settings = Written({ { "loss", ratio } });
        EXPECT_EQ(SettingsText(settings), std::string("loss ") + ratio);
    }
}

TEST(SettingsText, OffPutsEachBackToWhatItWas)
{
    Settings settings = Written({ { "blackout", "on" }, { "loss", "5%" }, { "burst", "1%,25%" },
        { "drop-seq", "7" }, { "delay", "20ms" }, { "jitter", "5ms" }, { "reorder", "30%" },
        { "duplicate", "2%" }, { "corrupt", "1%" }, { "rate", "8M" } });
    std::string problem;
    for (const SettingName& name : SettingNames()) {
        const bool bHasNoOff = name.name == "queue"; // only with a rate, and never without a length
        EXPECT_TRUE(bHasNoOff || ApplySetting(settings, name.name, "off", problem)) << problem;
    }
    EXPECT_EQ(settings, Settings());
}

TEST(SettingsText, TheLastQueueCountsBeItATimeOrASize)
{
    const Settings time = Written({ { "queue", "64k" }, { "queue", "50ms" } });
    EXPECT_EQ(time.queueBytes, 0);
    EXPECT_EQ(time.queueUs, 50'000);
    EXPECT_EQ(Written({ { "queue", "50ms" }, { "queue", "1500" } }).queueBytes, 1500);
}

TEST(SettingsText, AWrongValueIsNamedWithWhatItShouldBe)
{
    EXPECT_EQ(Problem("loss", "5x"), "loss '5x' is not a ratio such as 5% or 0.05");
    EXPECT_EQ(Problem("loss", ""), "loss '' is not a ratio such as 5% or 0.05");
    EXPECT_EQ(Problem("delay", "20"), "delay '20' is not a duration such as 20ms, at most 1h");
    EXPECT_EQ(Problem("delay", "61min"), "delay '61min' is not a duration such as 20ms, at most 1h");
    EXPECT_EQ(Problem("rate", "fast"), "rate 'fast' is not a bit rate such as 8M or 64k");
    EXPECT_EQ(Problem("blackout", "yes"), "blackout 'yes' is not on or off");
    EXPECT_EQ(Problem("speed", "1"), "there is no setting 'speed'");
}

TEST(SettingsText, HalfABurstAndBrokenListsAreRefused)
{
    for (const char* value : { "1%", "1%,", ",1%", "1%,2%,3%,4%,5%", "1%,2%,", "101%,5%" })
        EXPECT_NE(Problem("burst", value), "") << value;
    for (const char* value : { "", ",", "7,", "65536", "7x", "7x0", "x3", "-5", "5-", "7-8-9", "a", "7 8" })
        EXPECT_NE(Problem("drop-seq", value), "") << value;
    for (const char* value : { "off", "0", "1x", "2h" })
        EXPECT_NE(Problem("queue", value), "") << value;
}

TEST(SettingsText, CleanEndsLossAndDamageAndKeepsTheTimes)
{
    Settings settings = Written({ { "blackout", "on" }, { "loss", "5%" }, { "burst", "1%,25%" },
        { "drop-seq", "7" }, { "delay", "20ms" }, { "jitter", "5ms" }, { "reorder", "30%" },
        { "duplicate", "2%" }, { "corrupt", "1%" }, { "rate", "8M" } });
    MakeClean(settings);
    EXPECT_EQ(SettingsText(settings), "delay 20ms jitter 5ms reorder 30% rate 8000000 queue 100ms");
}

} // namespace
} // namespace arqlink
