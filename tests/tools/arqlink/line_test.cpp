#include "line_fixture.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <set>

namespace arqlink {
namespace {

constexpr size_t MANY = 50'000;

std::vector<uint64_t> Numbers(const std::vector<Delivery>& delivered)
{
    std::vector<uint64_t> numbers;
    for (const Delivery& delivery : delivered)
        numbers.push_back(delivery.number);
    return numbers;
}

std::vector<Outcome> Outcomes(const Course& run)
{
    std::vector<Outcome> outcomes;
    for (const Fate& fate : run.fates)
        outcomes.push_back(fate.outcome);
    return outcomes;
}

// Five standard deviations of a count of `n` draws with this chance.
double Margin(double n, double chance)
{
    return 5 * std::sqrt(n * chance * (1 - chance));
}

void ExpectIdentity(const Counts& counts, size_t underWay)
{
    EXPECT_EQ(counts.came + counts.duplicated, counts.delivered + counts.Lost() + underWay);
}

TEST(Line, AsItIsMadeItDeliversEverythingAtOnceInOrderUnchanged)
{
    PacketStore store;
    Line line(1, {}, store);
    Delivery delivery;
    for (uint16_t i = 0; i < 100; i++) {
        EXPECT_EQ(line.Push(Rtp(i), i, 7000U + i).outcome, Outcome::Passed);
        EXPECT_EQ(line.NextWakeUs(), i);
        ASSERT_TRUE(line.PopDue(i, delivery));
        EXPECT_EQ(delivery.bytes, Rtp(i));
        EXPECT_EQ(delivery.cookie, 7000U + i);
        EXPECT_EQ(delivery.number, i);
        EXPECT_FALSE(delivery.bCopy);
        EXPECT_FALSE(line.PopDue(i, delivery));
    }
    EXPECT_EQ(line.NextWakeUs(), NEVER);
    EXPECT_EQ(line.Figures().delivered, 100U);
    EXPECT_EQ(line.Figures().deliveredBytes, 100U * 200);
}

TEST(Line, RandomLossTakesItsPart)
{
    for (const double loss : { 0.001, 0.05, 0.2, 0.9 }) {
        Settings settings;
        settings.loss = loss;
        const Course run = Drive(1, settings, MANY);
        EXPECT_NEAR(static_cast<double>(run.counts.random), MANY * loss, Margin(MANY, loss)) << loss;
        EXPECT_EQ(run.counts.delivered, MANY - run.counts.random);
    }
}

TEST(Line, RandomLossTakesNoNoticeOfWhatItTookBefore)
{
    const Course run = Drive(3, Written({ { "loss", "20%" } }), MANY);
    double pairs = 0;
    for (size_t i = 1; i < run.fates.size(); i++)
        pairs
            += run.fates[i].outcome == Outcome::Random && run.fates[i - 1].outcome == Outcome::Random ? 1 : 0;
    EXPECT_NEAR(pairs, MANY * 0.04, 2 * Margin(MANY, 0.04));
}

TEST(Line, LossOfAllTakesAllAndLossOfNothingNothing)
{
    EXPECT_EQ(Drive(1, Written({ { "loss", "100%" } }), 1000).counts.delivered, 0U);
    EXPECT_EQ(Drive(1, Written({ { "loss", "0" } }), 1000).counts.delivered, 1000U);
    EXPECT_EQ(Drive(1, Written({ { "blackout", "on" } }), 1000).counts.blackout, 1000U);
}

TEST(Line, AHigherLossTakesWhatALowerOneTakes)
{
    const std::vector<Outcome> low = Outcomes(Drive(5, Written({ { "loss", "5%" } }), 10'000));
    const std::vector<Outcome> high = Outcomes(Drive(5, Written({ { "loss", "20%" } }), 10'000));
    for (size_t i = 0; i < low.size(); i++)
        EXPECT_TRUE(low[i] == Outcome::Passed || high[i] == Outcome::Random) << i;
}

TEST(Line, BurstsHaveTheirMeanLengthAndTheirPart)
{
    // Bad a fifth of the time (1 / (1 + 4)), in stretches of 25 packets.
    const Course run = Drive(2, Written({ { "burst", "1%,4%" } }), 4 * MANY);
    double stretches = 0;
    for (size_t i = 1; i < run.fates.size(); i++)
        stretches
            += run.fates[i].outcome == Outcome::Burst && run.fates[i - 1].outcome == Outcome::Passed ? 1 : 0;
    const auto lost = static_cast<double>(run.counts.burst);
    EXPECT_NEAR(lost / (4 * MANY), 0.2, 0.01);
    EXPECT_NEAR(lost / stretches, 25, 1);
}

TEST(Line, BurstsMayLoseAPartWithinAndAPartBetween)
{
    // Half of the time bad: 0.5 * 60 % + 0.5 * 10 %.
    const Course run = Drive(2, Written({ { "burst", "1%,1%,60%,10%" } }), 4 * MANY);
    EXPECT_NEAR(static_cast<double>(run.counts.burst) / (4 * MANY), 0.35, 0.02);
}

TEST(Line, BurstsThatAreSwitchedOffBeginInTheGoodState)
{
    PacketStore store;
    const Settings alwaysBad = Written({ { "burst", "100%,0" } });
    const Settings neverBad = Written({ { "burst", "0,0,100%,0.000001%" } });
    Line line(1, alwaysBad, store);
    EXPECT_EQ(line.Push(Rtp(0), 0).outcome, Outcome::Burst);
    line.Configure(neverBad); // still on: the bad state stays
    EXPECT_EQ(line.Push(Rtp(1), 0).outcome, Outcome::Burst);
    line.Configure({});
    line.Configure(neverBad);
    EXPECT_EQ(line.Push(Rtp(2), 0).outcome, Outcome::Passed);
}

TEST(Line, TheSameSeedHasTheSameFatesAndAnotherSeedOthers)
{
    const Settings settings = Written({ { "loss", "10%" }, { "burst", "1%,20%" }, { "delay", "5ms" },
        { "jitter", "9ms" }, { "reorder", "30%" }, { "duplicate", "5%" }, { "corrupt", "5%" } });
    const Course first = Drive(42, settings, 5000);
    const Course again = Drive(42, settings, 5000);
    const Course other = Drive(43, settings, 5000);
    EXPECT_EQ(Outcomes(first), Outcomes(again));
    EXPECT_EQ(Numbers(first.delivered), Numbers(again.delivered));
    for (size_t i = 0; i < first.delivered.size(); i++) {
        ASSERT_EQ(first.delivered[i].bytes, again.delivered[i].bytes);
        ASSERT_EQ(first.delivered[i].dueUs, again.delivered[i].dueUs);
    }
    EXPECT_NE(Outcomes(first), Outcomes(other));
}

TEST(Line, AFateDoesNotDependOnWhenThePacketCame)
{
    const Settings settings = Written({ { "loss", "10%" }, { "burst", "1%,20%" }, { "jitter", "9ms" },
        { "duplicate", "5%" }, { "corrupt", "5%" } });
    const Course slow = Drive(42, settings, 5000, 20'000);
    const Course fast = Drive(42, settings, 5000, 10);
    for (size_t i = 0; i < slow.fates.size(); i++) {
        ASSERT_EQ(slow.fates[i].outcome, fast.fates[i].outcome) << i;
        ASSERT_EQ(slow.fates[i].delayUs, fast.fates[i].delayUs) << i;
        ASSERT_EQ(slow.fates[i].bCorrupted, fast.fates[i].bCorrupted) << i;
        ASSERT_EQ(slow.fates[i].bDuplicated, fast.fates[i].bDuplicated) << i;
    }
}

TEST(Line, OneSettingLeavesTheDrawsOfTheOthersAlone)
{
    const Course alone = Drive(42, Written({ { "loss", "10%" } }), 5000);
    const Course among = Drive(42,
        Written({ { "loss", "10%" }, { "jitter", "9ms" }, { "reorder", "50%" }, { "duplicate", "20%" },
            { "corrupt", "20%" } }),
        5000);
    EXPECT_EQ(Outcomes(alone), Outcomes(among));
}

TEST(Line, DelayHoldsEveryPacketExactlyThatLong)
{
    PacketStore store;
    Line line(1, Written({ { "delay", "20ms" } }), store);
    (void)line.Push(Rtp(1), 1'000'000);
    Delivery delivery;
    EXPECT_EQ(line.NextWakeUs(), 1'020'000);
    EXPECT_FALSE(line.PopDue(1'019'999, delivery));
    EXPECT_EQ(line.UnderWay(), 1U);
    EXPECT_TRUE(line.PopDue(1'020'000, delivery));
    EXPECT_EQ(delivery.dueUs, 1'020'000);
}

TEST(Line, JitterSpreadsEvenlyAndKeepsTheOrder)
{
    const Course run = Drive(1, Written({ { "delay", "10ms" }, { "jitter", "30ms" } }), MANY);
    double sum = 0;
    for (const Fate& fate : run.fates) {
        ASSERT_GE(fate.delayUs, 10'000);
        ASSERT_LE(fate.delayUs, 40'000);
        sum += static_cast<double>(fate.delayUs);
    }
    EXPECT_NEAR(sum / MANY, 25'000, 150);
    const std::vector<uint64_t> numbers = Numbers(run.delivered);
    EXPECT_EQ(numbers.size(), MANY);
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
    EXPECT_EQ(run.counts.reordered, 0U);
}

TEST(Line, ReorderedPacketsLeaveAtTheirOwnTime)
{
    const Course run
        = Drive(1, Written({ { "delay", "10ms" }, { "jitter", "30ms" }, { "reorder", "100%" } }), 10'000);
    for (const Delivery& delivery : run.delivered)
        ASSERT_EQ(delivery.dueUs,
            static_cast<int64_t>(delivery.number) * SPACING_US + run.fates[delivery.number].delayUs);
    size_t behind = 0;
    uint64_t highest = 0;
    for (const uint64_t number : Numbers(run.delivered)) {
        behind += number < highest ? 1 : 0;
        highest = std::max(highest, number);
    }
    EXPECT_GT(behind, 5000U);
    EXPECT_EQ(run.counts.reordered, behind);
}

TEST(Line, OnlyThePartThatIsReorderedLosesItsPlace)
{
    const Course all = Drive(1, Written({ { "jitter", "30ms" }, { "reorder", "100%" } }), 10'000);
    const Course few = Drive(1, Written({ { "jitter", "30ms" }, { "reorder", "5%" } }), 10'000);
    EXPECT_GT(few.counts.reordered, 0U);
    EXPECT_LT(few.counts.reordered, all.counts.reordered);
    EXPECT_EQ(few.counts.delivered, 10'000U);
}

TEST(Line, DuplicatesComeTwiceWithTheSameBytes)
{
    const Course run = Drive(1, Written({ { "duplicate", "10%" }, { "corrupt", "50%" } }), 10'000);
    EXPECT_NEAR(static_cast<double>(run.counts.duplicated), 1000, Margin(10'000, 0.1));
    EXPECT_EQ(run.counts.delivered, 10'000 + run.counts.duplicated);
    EXPECT_EQ(run.counts.reordered, 0U);
    for (size_t i = 0; i < run.delivered.size(); i++) {
        if (!run.delivered[i].bCopy)
            continue;
        ASSERT_TRUE(run.fates[run.delivered[i].number].bDuplicated);
        ASSERT_EQ(run.delivered[i].bytes, run.delivered[i - 1].bytes);
    }
}

TEST(Line, ADuplicateHasAJitterOfItsOwn)
{
    const Course run
        = Drive(1, Written({ { "duplicate", "100%" }, { "jitter", "30ms" }, { "reorder", "100%" } }), 1000);
    size_t apart = 0;
    for (const Delivery& delivery : run.delivered) {
        const Fate& fate = run.fates[delivery.number];
        const int64_t delayUs = delivery.bCopy ? fate.copyDelayUs : fate.delayUs;
        ASSERT_EQ(delivery.dueUs, static_cast<int64_t>(delivery.number) * SPACING_US + delayUs);
        apart += fate.copyDelayUs != fate.delayUs ? 1 : 0;
    }
    EXPECT_GT(apart, 1900U);
}

TEST(Line, CorruptionChangesOneToFourBytesAndNoLength)
{
    const Course run = Drive(1, Written({ { "corrupt", "10%" } }), 10'000);
    std::set<int> seen;
    std::set<size_t> places;
    for (const Delivery& delivery : run.delivered) {
        const std::vector<uint8_t> sent = Rtp(static_cast<uint16_t>(delivery.number));
        ASSERT_EQ(delivery.bytes.size(), sent.size());
        int changed = 0;
        for (size_t i = 0; i < sent.size(); i++) {
            if (sent[i] == delivery.bytes[i])
                continue;
            changed++;
            places.insert(i);
        }
        ASSERT_EQ(changed > 0, run.fates[delivery.number].bCorrupted);
        seen.insert(changed);
    }
    EXPECT_EQ(seen, (std::set<int> { 0, 1, 2, 3, 4 }));
    EXPECT_EQ(places.size(), 200U); // anywhere in the packet
    EXPECT_NEAR(static_cast<double>(run.counts.corrupted), 1000, Margin(10'000, 0.1));
}

TEST(Line, TheShortestDatagramsAreCorruptedWithinTheirLength)
{
    PacketStore store;
    Line line(1, Written({ { "corrupt", "100%" } }), store);
    Delivery delivery;
    for (size_t size = 0; size <= 4; size++) {
        for (int i = 0; i < 100; i++) {
            const std::vector<uint8_t> sent(size, 0);
            EXPECT_EQ(line.Push(sent, 0).bCorrupted, size > 0);
            ASSERT_TRUE(line.PopDue(0, delivery));
            EXPECT_EQ(delivery.bytes == sent, size == 0);
            EXPECT_EQ(delivery.bytes.size(), size);
        }
    }
}

TEST(Line, ALimitedRateSpacesPacketsByTheTimeEachTakes)
{
    PacketStore store;
    Line line(1, Written({ { "rate", "1.6M" } }), store); // 200 bytes a millisecond
    for (uint16_t i = 0; i < 5; i++)
        EXPECT_EQ(line.Push(Rtp(i), 0).outcome, Outcome::Passed);
    std::vector<Delivery> delivered;
    Drain(line, 1'000'000, delivered);
    ASSERT_EQ(delivered.size(), 5U);
    for (size_t i = 0; i < 5; i++)
        EXPECT_EQ(delivered[i].dueUs, static_cast<int64_t>(i + 1) * 1000);
}

TEST(Line, AQueueInBytesIsCutOffWhereItIsFull)
{
    PacketStore store;
    Line line(1, Written({ { "rate", "1.6M" }, { "queue", "1000" } }), store);
    std::vector<Outcome> outcomes;
    for (uint16_t i = 0; i < 7; i++)
        outcomes.push_back(line.Push(Rtp(i), 0).outcome);
    const std::vector<Outcome> expected { Outcome::Passed, Outcome::Passed, Outcome::Passed, Outcome::Passed,
        Outcome::Passed, Outcome::Queue, Outcome::Queue };
    EXPECT_EQ(outcomes, expected);
    EXPECT_EQ(line.Push(Rtp(8), 999).outcome, Outcome::Queue); // one packet's time is not over
    EXPECT_EQ(line.Push(Rtp(9), 1000).outcome, Outcome::Passed);
    EXPECT_EQ(line.Figures().queue, 3U);
}

TEST(Line, AQueueInTimeTakesWhatWaitsNoLonger)
{
    PacketStore store;
    Line line(1, Written({ { "rate", "1.6M" }, { "queue", "3ms" } }), store);
    for (uint16_t i = 0; i < 4; i++)
        EXPECT_EQ(line.Push(Rtp(i), 0).outcome, Outcome::Passed) << i; // waits i ms
    EXPECT_EQ(line.Push(Rtp(4), 0).outcome, Outcome::Queue);
}

TEST(Line, APacketLargerThanTheWholeQueuePassesAnIdleLine)
{
    PacketStore store;
    Line line(1, Written({ { "rate", "1.6M" }, { "queue", "100" } }), store);
    EXPECT_EQ(line.Push(Rtp(0), 0).outcome, Outcome::Passed);
    EXPECT_EQ(line.Push(Rtp(1), 0).outcome, Outcome::Queue);
}

TEST(Line, ALimitedRateCarriesThatRateAndNoMore)
{
    // 1.6 Mbit/s are offered, 1 Mbit/s passes: 0.625 of the packets, and what the queue holds at the end.
    const Course run = Drive(1, Written({ { "rate", "1M" }, { "queue", "50ms" } }), 10'000);
    EXPECT_NEAR(static_cast<double>(run.counts.delivered), 6250, 40);
}

TEST(Line, TheSlowestLineAndTheLargestQueueOverflowNothing)
{
    PacketStore store;
    Line line(1, Written({ { "rate", "1" }, { "queue", "1000000G" } }), store);
    const std::vector<uint8_t> largest(65507);
    int64_t passed = 0;
    for (int i = 0; i < 1000; i++)
        passed += line.Push(largest, int64_t { 1 } << 52).outcome == Outcome::Passed ? 1 : 0;
    EXPECT_EQ(passed, 1); // six days long; nothing waits behind it
    EXPECT_GT(line.NextWakeUs(), int64_t { 1 } << 52);
}

TEST(Line, TheMemoryIsLimitedAndGivenBack)
{
    PacketStore store(1'000'000);
    {
        Line line(1, Written({ { "delay", "1h" }, { "duplicate", "100%" } }), store);
        for (int i = 0; i < 5000; i++)
            (void)line.Push(Rtp(static_cast<uint16_t>(i), 1400), 0);
        EXPECT_LE(store.UsedBytes(), 1'000'000U);
        EXPECT_GT(line.UnderWay(), 300U);
        EXPECT_EQ(line.Figures().delivered, 0U);
        EXPECT_GT(line.Figures().memory, 4000U);
        ExpectIdentity(line.Figures(), line.UnderWay());
        Delivery delivery;
        ASSERT_TRUE(line.PopDue(NEVER - 1, delivery));
        EXPECT_EQ(line.Push(Rtp(1), 0).outcome, Outcome::Passed);
    }
    EXPECT_EQ(store.UsedBytes(), 0U);
}

TEST(Line, EveryPacketIsCountedOnce)
{
    const Course run = Drive(9,
        Written({ { "loss", "5%" }, { "burst", "1%,20%,50%,1%" }, { "drop-seq", "100-200x2,65535" },
            { "delay", "5ms" }, { "jitter", "20ms" }, { "reorder", "10%" }, { "duplicate", "5%" },
            { "corrupt", "5%" }, { "rate", "1.6M" }, { "queue", "5ms" } }),
        100'000U);
    ExpectIdentity(run.counts, 0);
    EXPECT_EQ(run.counts.came, 100'000U);
    EXPECT_EQ(run.counts.delivered, run.delivered.size());
    EXPECT_EQ(run.counts.sequence, 101U + 101U + 1U); // 65536 numbers a lap, a second lap for 100 to 200
    for (const uint64_t count :
        { run.counts.random, run.counts.burst, run.counts.duplicated, run.counts.corrupted })
        EXPECT_GT(count, 0U);
    uint64_t passed = 0;
    for (const Fate& fate : run.fates)
        passed += fate.outcome == Outcome::Passed ? 1 : 0;
    EXPECT_EQ(passed + run.counts.duplicated, run.counts.delivered);
}

TEST(Line, ChangedSettingsHoldFromTheNextPacketOnAndKeepTheOrder)
{
    PacketStore store;
    Line line(1, Written({ { "delay", "100ms" } }), store);
    (void)line.Push(Rtp(0), 0);
    line.Configure({});
    (void)line.Push(Rtp(1), 10);
    line.Configure(Written({ { "blackout", "on" } }));
    EXPECT_EQ(line.Push(Rtp(2), 20).outcome, Outcome::Blackout);
    std::vector<Delivery> delivered;
    Drain(line, 99'999, delivered);
    EXPECT_TRUE(delivered.empty());
    Drain(line, 100'000, delivered);
    EXPECT_EQ(Numbers(delivered), (std::vector<uint64_t> { 0, 1 }));
}

TEST(Line, EachOutcomeHasItsName)
{
    std::set<std::string> names;
    for (int i = 0; i <= static_cast<int>(Outcome::Memory); i++)
        names.insert(OutcomeName(static_cast<Outcome>(i)));
    const std::set<std::string> expected { "passed", "blackout", "sequence", "burst", "random", "queue",
        "memory" };
    EXPECT_EQ(names, expected);
}

} // namespace
} // namespace arqlink
