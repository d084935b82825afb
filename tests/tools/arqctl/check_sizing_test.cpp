#include "tools/arqctl/doctor_fixture.h"

namespace arqctl::doctor_tests {

namespace {

DoctorFacts WithRing(uint32_t packets)
{
    DoctorFacts facts = Healthy();
    facts.options.ringPackets = packets;
    return facts;
}

DoctorFacts WithGrossRate(int64_t rate)
{
    DoctorFacts facts = Healthy();
    facts.options.grossBitRate = rate;
    return facts;
}

DoctorFacts WithPacing(int64_t rate)
{
    DoctorFacts facts = Healthy();
    facts.options.pacingBitRate = rate;
    return facts;
}

} // namespace

TEST(DoctorRing, ItsTimeCoversTheDefaultWindow)
{
    ExpectGood(CheckRingTime(WithRing(1024)), "holds 1.0 s");
    ExpectWarning(CheckRingTime(WithRing(512)), "holds 0.51 s");
    EXPECT_EQ(CheckRingTime(WithRing(512)).advice, "Start the proxy with -q 2048");
    ExpectFault(CheckRingTime(WithRing(128)), "gone before they are asked for");
    ExpectWarning(CheckRingTime(WithRing(131072)), "only takes memory");
}

TEST(DoctorRing, ATimeIsOnlyKnownWithARate)
{
    DoctorFacts facts = WithRing(512);
    facts.second.statistics->receivedPackets = facts.first.statistics->receivedPackets;
    ExpectNotApplicable(CheckRingTime(facts), "is not known");
    facts = BeforeTheStart();
    ExpectNotApplicable(CheckRingTime(facts), "--rate");
    facts.expectedBitRate = 100e6;
    facts.expectedPayload = 1316;
    ExpectWarning(CheckRingTime(facts), "holds 0.43 s");
    EXPECT_EQ(CheckRingTime(facts).advice, "Start the proxy with -q 16384");
}

TEST(DoctorRing, BesideAPacerItNeedsMore)
{
    DoctorFacts facts = WithRing(512);
    facts.options.pacingBitRate = 20'000'000;
    ExpectWarning(CheckRingTime(facts), "too short beside -X");
    facts.options.ringPackets = 1024;
    ExpectGood(CheckRingTime(facts));
}

TEST(DoctorRing, AHugeRateAsksForNoEndlessRing)
{
    DoctorFacts facts = WithRing(4096);
    facts.second.statistics->receivedPackets = UINT64_MAX;
    ExpectFault(CheckRingTime(facts), "holds 0.00 s");
    facts.options.ringPackets = 65536;
    EXPECT_EQ(CheckRingTime(facts).advice, "Give receivers a shorter window");
}

TEST(DoctorBudget, ItsProductWrapsAt32Bits)
{
    ExpectGood(
        CheckRequestBudget(WithGrossRate(50'000'000)), "352,516 bytes; -G wraps: 2,500,000 were meant");
    ExpectGood(CheckRequestBudget(WithGrossRate(10'700'000)), "535,000 bytes of at most 536,870");
    ExpectGood(CheckRequestBudget(WithGrossRate(10'737'418)), "536,870 bytes of");
    ExpectFault(CheckRequestBudget(WithGrossRate(10'737'419)), "0 bytes; -G wraps");
    ExpectWarning(CheckRequestBudget(WithGrossRate(12'000'000)), "63,129 bytes; -G wraps");
    EXPECT_NE(CheckRequestBudget(WithGrossRate(12'000'000)).advice.find("-G 10700000"), std::string::npos);
}

TEST(DoctorBudget, AFewPacketsAreAWarningAndNoneAFault)
{
    ExpectFault(CheckRequestBudget(WithGrossRate(0)), "0 bytes");
    ExpectFault(CheckRequestBudget(WithGrossRate(29'999)), "1,499 bytes");
    ExpectWarning(CheckRequestBudget(WithGrossRate(30'000)), "1,500 bytes");
    ExpectWarning(CheckRequestBudget(WithGrossRate(299'999)), "14,999 bytes");
    ExpectGood(CheckRequestBudget(WithGrossRate(300'000)));
}

TEST(DoctorPacing, ARateBelowTheInputIsAFault)
{
    ExpectNotApplicable(CheckPacingRate(WithPacing(0)));
    ExpectFault(CheckPacingRate(WithPacing(10'527'999)), "the queue stays full"); // 1316 x 8 x 1000
    ExpectWarning(CheckPacingRate(WithPacing(10'528'000)), "no room for peaks");
    EXPECT_EQ(CheckPacingRate(WithPacing(10'528'000)).advice, "Set it above the stream's peaks: -X 13200000");
    ExpectGood(CheckPacingRate(WithPacing(11'600'000)));
    DoctorFacts facts = WithPacing(1000);
    facts.second.statistics.reset();
    ExpectNotApplicable(CheckPacingRate(facts));
}

TEST(DoctorPacing, ItsQuotaWrapsAndMayBeNothing)
{
    ExpectNotApplicable(CheckPacingQuota(WithPacing(0)));
    ExpectGood(CheckPacingQuota(WithPacing(429'496'729)), "536,870 bytes");
    ExpectFault(CheckPacingQuota(WithPacing(429'496'730)), "0 bytes may leave, not 536,870");
    ExpectFault(CheckPacingQuota(WithPacing(799)), "0 bytes");
    ExpectGood(CheckPacingQuota(WithPacing(800)), "1 bytes");
}

TEST(DoctorTexts, NumbersAreReadable)
{
    EXPECT_EQ(Piece(uint64_t { 0 }), "0");
    EXPECT_EQ(Piece(uint64_t { 999 }), "999");
    EXPECT_EQ(Piece(UINT64_MAX), "18,446,744,073,709,551,615");
    EXPECT_EQ(Piece(INT64_MIN), "-9,223,372,036,854,775,808");
    EXPECT_EQ(SecondsText(1e300).size(), 303U);
}

} // namespace arqctl::doctor_tests
