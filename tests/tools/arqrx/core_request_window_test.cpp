#include "arqrx/core/request_window.h"

#include <gtest/gtest.h>

#include "arqrx/core/datagram_writer.h"

namespace arqrx {
namespace {

TEST(ArqrxRequestWindow, BudgetWrapsAsTheProxysDoes)
{
    EXPECT_EQ((RequestWindow { 2, 200, 0 }).BudgetBytes(50'000'000), 352'516U);
    EXPECT_EQ((RequestWindow { 2, 200, 0 }).BudgetBytes(10'737'418), 536'870U);
    EXPECT_EQ((RequestWindow { 2, 200, 0 }).BudgetBytes(10'737'419), 0U);
    EXPECT_EQ((RequestWindow { 2, 200, 0 }).MaximumAgeMs(), 600);
    EXPECT_EQ((RequestWindow { 3, 250, 40 }).MaximumAgeMs(), 1040);
}

TEST(ArqrxRequestWindow, CoversTheLatencyAndARoundTrip)
{
    Settings settings;
    for (const int64_t latencyMs : { 0, 1, 50, 99, 100, 101, 600, 1000, 5000, 60'000, 600'000, 7'200'000 }) {
        settings.latencyUs = latencyMs * 1000;
        const RequestWindow window = ChooseWindow(settings);
        EXPECT_GE(window.MaximumAgeMs(), latencyMs + latencyMs / 4) << latencyMs;
        EXPECT_GE(window.MaximumAgeMs(), latencyMs + 100) << latencyMs;
        EXPECT_LE(window.MaximumAgeMs(), latencyMs + latencyMs / 4 + 350 + latencyMs / 100) << latencyMs;
    }
}

TEST(ArqrxRequestWindow, EachWordStaysWithinSixteenBitsWhateverTheLatency)
{
    Settings settings;
    settings.latencyUs = INT64_MAX;
    EXPECT_GE(ChooseWindow(settings).MaximumAgeMs(), 3 * 3600 * 1000);
    EXPECT_LT(ChooseWindow(settings).MaximumAgeMs() * 90, INT32_MAX) << "ticks in 32 bits at the proxy";
    settings.holdOffUs = INT64_MAX;
    EXPECT_GE(ChooseWindow(settings).MaximumAgeMs(), 3 * 3600 * 1000);
}

TEST(ArqrxRequestWindow, HasABudgetWhereTheNearestWindowHasNone)
{
    Settings settings;
    for (const uint32_t bitRate :
        { 1'000'000U, 8'000'000U, 10'737'419U, 50'000'000U, 100'000'000U, 1'000'000'000U, 4'294'967'295U }) {
        settings.proxyBitRate = bitRate;
        for (settings.latencyUs = 20'000; settings.latencyUs < 3'000'000; settings.latencyUs += 37'000)
            EXPECT_GE(ChooseWindow(settings).BudgetBytes(bitRate), 8'000U)
                << bitRate << " " << settings.latencyUs;
    }
    settings.proxyBitRate = 50'000'000;
    settings.latencyUs = 600'000;
    EXPECT_GE(ChooseWindow(settings).BudgetBytes(50'000'000), 500'000U);
}

TEST(ArqrxRequestWindow, ARequestHasAsManyNumbersAsItsDatagramAndTheBudgetHaveRoomFor)
{
    Settings settings;
    const RequestWindow window { 2, 200, 0 };
    EXPECT_EQ(MostNumbers(settings, window, 1328), 265U);
    EXPECT_EQ(MostNumbers(settings, window, 100), 763U);
    settings.streamId = 1;
    EXPECT_EQ(MostNumbers(settings, window, 100), 759U);
    settings.proxyBitRate = 10'737'419;
    EXPECT_EQ(MostNumbers(settings, window, 1328), 759U) << "no budget at all: as if there were one";
    EXPECT_EQ(MostNumbers(settings, window, 0), 759U);
}

TEST(ArqrxRequestWindow, TheLongestRequestIsWhatTheProxyReads)
{
    for (const uint32_t streamId : { 0U, 1U }) {
        DatagramWriter writer(streamId);
        const std::vector<uint16_t> numbers(streamId == 0 ? 763 : 759, 7);
        EXPECT_EQ(writer.Request(numbers, { 2, 200, 0 }).size(), 1536U);
    }
}

} // namespace
} // namespace arqrx
