#include "tools/arqctl/doctor_fixture.h"

namespace arqctl::doctor_tests {

TEST(DoctorStream, AnInputThatStandsStillIsAFault)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckInput(facts), "1,000 packets/s, 10.5 Mbit/s");
    facts.second.statistics->receivedPackets = 10000;
    ExpectFault(CheckInput(facts), "no input for 1.0 s; 10,000 packets came before",
        "tcpdump -ni any -c 5 udp port 5000");
    facts.second.statistics->receivedPackets = 0;
    ExpectFault(CheckInput(facts), "no input has ever come");
    facts.second.statistics.reset();
    ExpectNotApplicable(CheckInput(facts));
    ExpectNotApplicable(CheckInput(BeforeTheStart()), "does not run yet");
}

TEST(DoctorStream, LossThatGrowsIsAFaultAndOldLossAWarning)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckInputLoss(facts));
    facts.second.statistics->receivedLoss = 3;
    ExpectFault(CheckInputLoss(facts), "3 input packets have just been lost");
    facts.first.statistics->receivedLoss = 3;
    ExpectWarning(CheckInputLoss(facts), "3 input packets were lost", "arqctl -I 1 reset rx");
    facts.first.statistics->receivedLoss = 30; // reset meanwhile
    ExpectWarning(CheckInputLoss(facts), "3 input packets were lost");
    facts.options.isRawInput = true;
    ExpectNotApplicable(CheckInputLoss(facts), "no numbers");
}

TEST(DoctorStream, FiguresThatHaveWrappedAreTold)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckBitRates(facts));
    facts.second.statistics->sentBitRate = 2147483648U;
    ExpectWarning(CheckBitRates(facts), "printed below 0: 2.15 Gbit/s");
    facts.second.statistics->sentBitRate = 5; // 50 receivers at 8.6 million packets a second
    facts.second.statistics->sentPackets = facts.first.statistics->sentPackets + 500'000;
    ExpectWarning(CheckBitRates(facts), "has wrapped: about 5.26 Gbit/s", "arqctl -I 1 stats");
    facts.first.statistics.reset();
    ExpectNotApplicable(CheckBitRates(facts));
}

TEST(DoctorDestinations, OnesOfTheCommandLineAreKnownAndInTheList)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckDestinations(facts), "the one of -a is in the list");
    facts.destinations.push_back({ "studio b", {} });
    ExpectFault(CheckDestinations(facts), "'studio b' of -a is a name that nobody knows",
        "getent ahostsv4 'studio b'");
    facts.destinations[1] = { "studio", { 0x0A000002, 0x0A000003 } };
    ExpectFault(CheckDestinations(facts), "'studio' of -a is not in the list", "arqctl -I 1 add studio");
    facts.second.statistics->receivers = { "10.0.0.3", "10.0.0.1" };
    ExpectGood(CheckDestinations(facts), "all 2 of -a are in the list");
    facts.destinations[1] = { "239.1.1.1", { GROUP } };
    ExpectFault(CheckDestinations(facts), "the group 239.1.1.1 of -a is skipped");
    facts.destinations.clear();
    ExpectNotApplicable(CheckDestinations(facts));
    ExpectGood(CheckDestinations(BeforeTheStart()), "the one of -a is known");
}

TEST(DoctorDestinations, WithAPingPortOfItsOwnOneGroupIsServed)
{
    DoctorFacts facts = Healthy();
    facts.options.unicastPort = 5005;
    ExpectFault(CheckDestinations(facts), "no group stands in -a");
    facts.options.destinations = { "239.1.1.1" };
    facts.destinations = { { "239.1.1.1", { GROUP } } };
    ExpectGood(CheckDestinations(facts), "239.1.1.1 gets the media");
    facts.destinations.push_back({ "10.0.0.1", { 0x0A000001 } });
    ExpectWarning(CheckDestinations(facts), "beside 239.1.1.1 nothing else");
}

TEST(DoctorStream, DeliberateLossIsToldWithTheCommandThatEndsIt)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckDeliberateLoss(facts), "none of 1,000 packets");
    facts.deliberateLoss = LossFinding { LossState::On, LossDoubt::None, 1000, 9 };
    ExpectWarning(CheckDeliberateLoss(facts), "9 of 1,000 packets were withheld", "arqctl -I 1 impair off");
    facts.deliberateLoss = LossFinding {};
    ExpectNotApplicable(CheckDeliberateLoss(facts), "too little was sent");
    ExpectNotApplicable(CheckDeliberateLoss(BeforeTheStart()), "does not run yet");
}

TEST(DoctorReceivers, AListThatIsEmptyOrFullIsAWarning)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckReceivers(facts), "1 of 50 places");
    facts.second.statistics->receivers.assign(49, "10.0.0.1");
    ExpectGood(CheckReceivers(facts), "49 of 50 places");
    facts.second.statistics->receivers.assign(50, "10.0.0.1");
    ExpectWarning(CheckReceivers(facts), "nobody else is served", "arqctl -I 1 list");
    facts.second.statistics->receivers.clear();
    ExpectWarning(CheckReceivers(facts), "the list is empty: nothing is sent",
        "tcpdump -ni any -c 5 udp dst port 5002");
    facts.options.destinations = { "239.1.1.1" }; // it needs nobody in the list
    facts.options.unicastPort = 5005;
    ExpectGood(CheckReceivers(facts), "0 of 50 places");
    ExpectNotApplicable(CheckReceivers(BeforeTheStart()), "does not run yet");
}

} // namespace arqctl::doctor_tests
