#include "replicator/destinations.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/allocation_hooks.h"
#include "support/captured_output.h"

namespace {

using Texts = std::vector<std::string>;

Texts Unicast(const char* list)
{
    Texts texts;
    ForEachUnicast(list, [&](const char* text) { texts.emplace_back(text); });
    return texts;
}

TEST(Destinations, AListIsCutAtCommasOnly)
{
    EXPECT_EQ(Unicast("10.0.0.1,10.0.0.2"), (Texts { "10.0.0.1", "10.0.0.2" }));
    EXPECT_EQ(Unicast("10.0.0.1;10.0.0.2"), Texts {});
    EXPECT_EQ(Unicast(",,10.0.0.1,,10.0.0.2,"), (Texts { "10.0.0.1", "10.0.0.2" }));
}

TEST(Destinations, AnEntryLongerThanAnyHostNameIsSkipped)
{
    for (const size_t length : { Destination::BYTES - 1, Destination::BYTES, 10 * Destination::BYTES }) {
        const std::string list = std::string(length, '.') + ",10.0.0.1";
        EXPECT_EQ(Unicast(list.c_str()), Texts { "10.0.0.1" });
    }
}

TEST(Destinations, AListIsReadWithoutMemory)
{
    const test_support::AllocationCount allocations;
    int count = 0;
    ForEachUnicast("10.0.0.1,10.0.0.2", [&](const char*) { ++count; });
    EXPECT_EQ(allocations.Count(), 0U);
    EXPECT_EQ(count, 2);
}

TEST(Destinations, AnUnknownDestinationIsSkippedInSilence)
{
    test_support::CapturedOutput output;
    EXPECT_EQ(Unicast("no.such.host.invalid,10.0.0.2"), Texts { "10.0.0.2" });
    EXPECT_EQ(output.Out(), "");
    EXPECT_EQ(output.Err(), "");
}

TEST(Destinations, AGroupAmongUnicastDestinationsIsSkippedWithAMessage)
{
    test_support::CapturedOutput output;
    EXPECT_EQ(Unicast("239.1.1.1,10.0.0.1"), Texts { "10.0.0.1" });
    EXPECT_EQ(output.Out(), "Error: Skipping 239.1.1.1, not an unicast address\n");
}

TEST(Destinations, TheFirstGroupIsTakenAndTheRestIsNotLookedAt)
{
    test_support::CapturedOutput output;
    EXPECT_STREQ(FirstMulticast("10.0.0.1,239.1.1.1,239.1.1.2,10.0.0.3").text, "239.1.1.1");
    EXPECT_EQ(output.Out(), "Error: Skipping 10.0.0.1, not a multicast address\n");
}

TEST(Destinations, AListWithoutAGroupIsReported)
{
    test_support::CapturedOutput output;
    EXPECT_STREQ(FirstMulticast("10.0.0.1").text, "");
    EXPECT_EQ(
        output.Out(), "Error: Skipping 10.0.0.1, not a multicast address\nError: No multicast address\n");
}

} // namespace
