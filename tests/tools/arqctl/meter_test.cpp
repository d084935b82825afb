#include "arqctl/core/meter.h"

#include <gtest/gtest.h>

#include "arqctl/core/reply.h"

namespace arqctl::meter_tests {

namespace {

constexpr int64_t SECOND = 1'000'000;
constexpr int PID = 4711;
const std::vector<std::string> TWO { "10.0.0.1", "10.0.0.2" };

struct Counts {
    uint64_t received = 0;
    uint32_t lost = 0;
    uint64_t sent = 0;
};

// A meter that is told counts once a second.
class Watched {
public:
    explicit Watched(std::vector<std::string> receivers = TWO) : m_receivers(std::move(receivers)) {}

    const Reading& See(Counts counts, int pid = PID, int fanOut = -1)
    {
        Statistics statistics;
        statistics.receivedPackets = counts.received;
        statistics.receivedLoss = counts.lost;
        statistics.sentPackets = counts.sent;
        statistics.receivers = m_receivers;
        m_nowUs += SECOND;
        m_meter.Take(statistics, m_nowUs, pid, fanOut);
        return m_meter.Now();
    }

    const Reading& Miss()
    {
        m_nowUs += SECOND;
        m_meter.Miss(m_nowUs);
        return m_meter.Now();
    }

    void Pass(int64_t us) { m_nowUs += us; }
    void SetReceivers(std::vector<std::string> receivers) { m_receivers = std::move(receivers); }
    int64_t NowUs() const { return m_nowUs; }
    const Totals& Sums() const { return m_meter.Now().totals; }

private:
    Meter m_meter;
    std::vector<std::string> m_receivers;
    int64_t m_nowUs = 77 * SECOND;
};

TEST(Meter, BeforeAnAnswerNothingIsKnown)
{
    Watched proxy;
    const Reading& reading = proxy.Miss();
    EXPECT_FALSE(reading.isUp || reading.hasBeenUp || reading.hasHadInput || reading.isInputGone);
    EXPECT_EQ(reading.totals, Totals());
}

TEST(Meter, TheFirstAnswerGivesTheProxysCountsAndNoRates)
{
    Watched proxy;
    const Reading& reading = proxy.See({ 5000, 3, 10010 });
    EXPECT_TRUE(reading.isUp && reading.hasBeenUp);
    EXPECT_FALSE(reading.hasHadInput || reading.isInputGone);
    EXPECT_EQ(reading.totals, (Totals { .received = 5000, .lost = 3, .sent = 10010 }));
    EXPECT_EQ(reading.rates, Rates());
    EXPECT_EQ(reading.atUs, proxy.NowUs());
    EXPECT_EQ(reading.statistics.receivers, TWO);
}

TEST(Meter, RatesAreOfTheTimeBetweenTheLastTwoAnswers)
{
    Watched proxy;
    (void)proxy.See({ 1000, 0, 2000 });
    proxy.Pass(SECOND); // two seconds in all
    const Reading& reading = proxy.See({ 1800, 6, 3610 });
    EXPECT_DOUBLE_EQ(reading.rates.inputPackets, 400);
    EXPECT_DOUBLE_EQ(reading.rates.lost, 3);
    EXPECT_DOUBLE_EQ(reading.rates.sent, 805);
    EXPECT_DOUBLE_EQ(reading.rates.sentBeyond, 5);
    EXPECT_TRUE(reading.hasHadInput);
    EXPECT_EQ(proxy.See({ 1800, 6, 3610 }).rates, Rates());
}

TEST(Meter, AnAnswerInTheSameMicrosecondIsCountedAndLeavesTheRates)
{
    Watched proxy;
    (void)proxy.See({ 1000, 0, 2000 });
    (void)proxy.See({ 1400, 0, 2800 });
    proxy.Pass(-SECOND);
    const Reading& reading = proxy.See({ 1500, 0, 3000 });
    EXPECT_EQ(reading.totals.received, 1500U);
    EXPECT_DOUBLE_EQ(reading.rates.inputPackets, 400);
}

TEST(Meter, TotalsGoOnOverAResetOfEverything)
{
    Watched proxy;
    (void)proxy.See({ 5000, 10, 10000 });
    const Reading& reading = proxy.See({ 30, 1, 67 });
    EXPECT_EQ(reading.totals,
        (Totals {
            .received = 5030, .lost = 11, .sent = 10067, .sentBeyond = 7, .withheld = 0, .resets = 1 }));
}

TEST(Meter, AResetOfTheInputSaysNothingOfWhatWasSentBeyondOrWithheld)
{
    Watched proxy;
    (void)proxy.See({ 5000, 10, 10000 });
    (void)proxy.See({ 30, 0, 12000 });
    (void)proxy.See({ 1030, 0, 14000 });
    EXPECT_EQ(proxy.See({ 2030, 0, 16000 }).totals,
        (Totals { .received = 7030, .lost = 10, .sent = 16000, .resets = 1 }));
}

TEST(Meter, AResetOfTheOutputSaysNothingOfWhatWasSentBeyondOrWithheld)
{
    Watched proxy;
    (void)proxy.See({ 5000, 10, 10000 });
    (void)proxy.See({ 6000, 10, 40 });
    (void)proxy.See({ 7000, 10, 2040 });
    EXPECT_EQ(proxy.See({ 8000, 10, 4040 }).totals,
        (Totals { .received = 8000, .lost = 10, .sent = 14040, .resets = 1 }));
}

TEST(Meter, WhatWasMissingBeforeAResetIsForgotten)
{
    Watched proxy;
    (void)proxy.See({ 1000, 0, 2000 });
    (void)proxy.See({ 2000, 0, 3950 }); // 50 are under way, or withheld
    (void)proxy.See({ 100, 0, 203 });
    EXPECT_EQ(proxy.Sums().sentBeyond, 3U);
}

TEST(Meter, ASmallStepOfTheLossOver32BitsGoesOn)
{
    Watched proxy;
    (void)proxy.See({ 5000, 4294967290U, 10000 });
    const Reading& reading = proxy.See({ 5001, 4, 10002 });
    EXPECT_EQ(reading.totals.lost, 4294967300U);
    EXPECT_EQ(reading.totals.resets, 0U);
    EXPECT_DOUBLE_EQ(reading.rates.lost, 10);
}

TEST(Meter, AStepOver32BitsThatThePacketsCannotHaveBroughtIsAReset)
{
    constexpr uint32_t MOST_OF_11 = 11 * 32767; // ten more were counted, and one may be
    Watched wrapped;
    (void)wrapped.See({ 5000, 0U - 100, 10000 });
    EXPECT_EQ(wrapped.See({ 5010, MOST_OF_11 - 100, 10020 }).totals.resets, 0U);
    Watched reset;
    (void)reset.See({ 5000, 0U - 100, 10000 });
    EXPECT_EQ(reset.See({ 5010, MOST_OF_11 - 99, 10020 }).totals.resets, 1U);
}

TEST(Meter, ALossThatStepsBackIsAReset)
{
    Watched proxy;
    (void)proxy.See({ 50, 12, 100 });
    const Reading& reading
        = proxy.See({ 5'000'000, 3, 10'000'000 }); // the input was reset, and more has come since
    EXPECT_EQ(reading.totals.resets, 1U);
    EXPECT_EQ(reading.totals.lost, 15U);
    EXPECT_EQ(reading.totals.received, 5'000'050U);
}

TEST(Meter, AnotherProcessIsARestartAndItsCountsAreAllNew)
{
    Watched proxy;
    (void)proxy.See({ 5000, 10, 10000 });
    const Reading& reading = proxy.See({ 6000, 12, 9000 }, PID + 1);
    EXPECT_EQ(reading.totals, (Totals { .received = 11000, .lost = 22, .sent = 19000, .restarts = 1 }));
    EXPECT_EQ(reading.rates, Rates());
    EXPECT_DOUBLE_EQ(proxy.See({ 6100, 12, 9200 }, PID + 1).rates.inputPackets, 100);
    EXPECT_EQ(proxy.Sums().restarts, 1U);
}

TEST(Meter, WithoutAProcessNumberAGapWithAllCountsBackIsARestart)
{
    Watched proxy;
    (void)proxy.See({ 5000, 10, 10000 }, 0);
    (void)proxy.Miss();
    const Reading& reading = proxy.See({ 30, 0, 60 }, 0);
    EXPECT_EQ(reading.totals, (Totals { .received = 5030, .lost = 10, .sent = 10060, .restarts = 1 }));
}

TEST(Meter, WithoutLossBeforeAGapWithTheOtherCountsBackIsARestartToo)
{
    Watched proxy;
    (void)proxy.See({ 5000, 0, 10000 }, 0);
    (void)proxy.Miss();
    EXPECT_EQ(proxy.See({ 30, 2, 60 }, 0).totals.restarts, 1U);
}

TEST(Meter, WithoutAGapOrAProcessNumberAllCountsBackAreAReset)
{
    Watched proxy;
    (void)proxy.See({ 5000, 10, 10000 }, 0);
    const Reading& reading = proxy.See({ 30, 0, 60 }, 0);
    EXPECT_EQ(reading.totals.restarts, 0U);
    EXPECT_EQ(reading.totals.resets, 1U);
}

TEST(Meter, ANewProcessHasNoRatesYetAndNothingMissing)
{
    Watched proxy;
    (void)proxy.See({ 5000, 10, 10000 });
    EXPECT_GT(proxy.See({ 6000, 10, 11950 }).rates.sent, 0); // 50 are missing
    EXPECT_EQ(proxy.See({ 100, 0, 200 }, PID + 1).rates, Rates());
    EXPECT_EQ(proxy.See({ 200, 0, 403 }, PID + 1).totals.sentBeyond, 3U);
}

TEST(Meter, CountsBackInTheSameProcessAreAResetEvenAfterAGap)
{
    Watched proxy;
    (void)proxy.See({ 5000, 10, 10000 });
    (void)proxy.Miss();
    const Reading& reading = proxy.See({ 30, 0, 60 });
    EXPECT_EQ(reading.totals.restarts, 0U);
    EXPECT_EQ(reading.totals.resets, 1U);
}

TEST(Meter, AGapAloneIsNoRestartAndItsPacketsCount)
{
    Watched proxy;
    (void)proxy.See({ 5000, 0, 10000 }, 0);
    EXPECT_FALSE(proxy.Miss().isUp);
    const Reading& reading = proxy.See({ 5200, 0, 10400 }, 0);
    EXPECT_TRUE(reading.isUp);
    EXPECT_EQ(reading.totals, (Totals { .received = 5200, .sent = 10400 }));
    EXPECT_DOUBLE_EQ(reading.rates.inputPackets, 100); // over both seconds
}

TEST(Meter, AMissLeavesTheCountsAndTakesTheRates)
{
    Watched proxy;
    (void)proxy.See({ 5000, 0, 10000 });
    (void)proxy.See({ 5100, 0, 10200 });
    const Reading& reading = proxy.Miss();
    EXPECT_TRUE(reading.hasBeenUp && reading.hasHadInput);
    EXPECT_EQ(reading.rates, Rates());
    EXPECT_EQ(reading.totals.received, 5100U);
    EXPECT_EQ(reading.statistics.receivedPackets, 5100U);
    EXPECT_EQ(reading.atUs, proxy.NowUs() - SECOND);
}

TEST(Meter, TheInputIsGoneAfterThreeSecondsAndBackWithItsNextPacket)
{
    Watched proxy;
    (void)proxy.See({ 10, 0, 20 });
    (void)proxy.See({ 20, 0, 40 });
    proxy.Pass(INPUT_GONE_US - SECOND - 1);
    EXPECT_FALSE(proxy.See({ 20, 0, 40 }).isInputGone);
    proxy.Pass(1 - SECOND);
    EXPECT_TRUE(proxy.See({ 20, 0, 40 }).isInputGone);
    EXPECT_FALSE(proxy.Miss().isInputGone) << "not known";
    const Reading& reading = proxy.See({ 21, 0, 42 });
    EXPECT_FALSE(reading.isInputGone);
    EXPECT_EQ(reading.inputChangedUs, proxy.NowUs());
}

TEST(Meter, AProxyThatNeverHadInputIsWithoutItThreeSecondsAfterTheFirstAnswer)
{
    Watched proxy;
    (void)proxy.See({ 0, 0, 0 });
    (void)proxy.See({ 0, 0, 0 });
    EXPECT_FALSE(proxy.See({ 0, 0, 0 }).isInputGone);
    const Reading& reading = proxy.See({ 0, 0, 0 });
    EXPECT_TRUE(reading.isInputGone);
    EXPECT_FALSE(reading.hasHadInput);
}

TEST(Meter, AResetAloneIsNoInput)
{
    Watched proxy;
    (void)proxy.See({ 10, 0, 20 });
    proxy.Pass(INPUT_GONE_US);
    EXPECT_TRUE(proxy.See({ 0, 0, 0 }).isInputGone);
}

TEST(Meter, ANewProcessHasThreeSecondsOfItsOwn)
{
    Watched proxy;
    (void)proxy.See({ 10, 0, 20 });
    proxy.Pass(10 * SECOND);
    EXPECT_FALSE(proxy.See({ 0, 0, 0 }, PID + 1).isInputGone);
    proxy.Pass(2 * SECOND);
    EXPECT_TRUE(proxy.See({ 0, 0, 0 }, PID + 1).isInputGone);
}

TEST(Meter, AReceiverThatComesIsNotSentBeyond)
{
    Watched proxy({ "10.0.0.1" });
    (void)proxy.See({ 1000, 0, 1000 });
    proxy.SetReceivers(TWO);
    EXPECT_EQ(proxy.See({ 2000, 0, 2700 }).totals.sentBeyond, 0U);
    EXPECT_EQ(proxy.See({ 3000, 0, 4705 }).totals.sentBeyond, 5U);
}

TEST(Meter, AReceiverThatGoesIsNotWithheld)
{
    Watched proxy;
    (void)proxy.See({ 1000, 0, 2000 });
    proxy.SetReceivers({ "10.0.0.2" });
    (void)proxy.See({ 2000, 0, 3001 });
    (void)proxy.See({ 3000, 0, 4001 });
    (void)proxy.See({ 4000, 0, 5001 });
    EXPECT_EQ(proxy.Sums().withheld, 0U);
    (void)proxy.See({ 5000, 0, 5801 });
    EXPECT_EQ(proxy.Sums().withheld, 136U) << "200 less 64 that may be under way";
}

TEST(Meter, AReceiverInAnothersPlaceIsNeither)
{
    Watched proxy;
    (void)proxy.See({ 1000, 0, 2000 });
    proxy.SetReceivers({ "10.0.0.2", "10.0.0.3" });
    (void)proxy.See({ 2000, 0, 3100 }); // 900 ms passed between them
    (void)proxy.See({ 3000, 0, 5100 });
    EXPECT_EQ(proxy.See({ 4000, 0, 7100 }).totals, (Totals { .received = 4000, .sent = 7100 }));
    proxy.SetReceivers({ "10.0.0.3", "10.0.0.4" });
    EXPECT_EQ(proxy.See({ 5000, 0, 10000 }).totals.sentBeyond, 0U) << "for 900 ms there were three";
}

TEST(Meter, TwoReceiversOfOneAddressAreTwo)
{
    Watched proxy({ "10.0.0.1", "10.0.0.1" });
    (void)proxy.See({ 1000, 0, 2000 });
    EXPECT_EQ(proxy.See({ 2000, 0, 4001 }).totals.sentBeyond, 1U);
}

TEST(Meter, OfAGroupEachPacketIsSentOnceWhateverItsReceivers)
{
    Watched proxy;
    (void)proxy.See({ 1000, 0, 1000 }, PID, 1);
    (void)proxy.See({ 2000, 0, 2009 }, PID, 1);
    EXPECT_EQ(proxy.See({ 3000, 0, 3009 }, PID, 1).totals,
        (Totals { .received = 3000, .sent = 3009, .sentBeyond = 9 }));
}

TEST(Meter, WithoutReceiversNothingIsWithheld)
{
    Watched proxy { std::vector<std::string>() };
    for (uint64_t i = 0; i < 4; ++i)
        (void)proxy.See({ i * 1000, 0, 0 });
    EXPECT_EQ(proxy.Sums(), (Totals { .received = 3000 }));
}

TEST(Meter, BitRatesThatThePrintedSignHidesAreReadAsTheyAre)
{
    Statistics statistics;
    ASSERT_TRUE(ParseStatistics("RECV_PACKETS=1\nRECV_BITRATE=-2147483648\nRECV_LOSS=-6\nSEND_PACKETS=2\n"
                                "SEND_BITRATE=-1\nCLIENTS=10.0.0.1,10.0.0.2",
        statistics));
    Meter meter;
    meter.Take(statistics, SECOND, PID);
    EXPECT_EQ(meter.Now().statistics.receivedBitRate, 2147483648U);
    EXPECT_EQ(meter.Now().statistics.sentBitRate, 4294967295U);
    EXPECT_EQ(meter.Now().totals.lost, 4294967290U);
}

TEST(Meter, TheLargestCountsAreNoTrouble)
{
    Watched proxy;
    (void)proxy.See({ 0, 0, 0 });
    const Reading& reading = proxy.See({ ~uint64_t { 0 }, ~uint32_t { 0 }, ~uint64_t { 0 } });
    EXPECT_EQ(reading.totals.received, ~uint64_t { 0 });
    EXPECT_EQ(reading.totals.sentBeyond, 0U) << "the product ends at the largest number";
}

} // namespace

} // namespace arqctl::meter_tests
