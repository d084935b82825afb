#include "tools/arqctl/doctor_fixture.h"

namespace arqctl::doctor_tests {

namespace {

Pinger PingFrom(uint32_t address, uint16_t port, std::optional<uint32_t> streamId = std::nullopt)
{
    return { .from = { address, port }, .to = { 0x0A0000FE, 5002 }, .streamId = streamId };
}

constexpr uint32_t LISTED = 0x0A000001, UNKNOWN = 0x0A000009;

} // namespace

TEST(DoctorArrivals, InputThatReachesTheMachineAndNotTheProxyIsAFault)
{
    DoctorFacts facts = Healthy();
    ExpectNotApplicable(CheckFirewall(facts), "let in UDP 5000, 5002 and 5003");
    facts.second.statistics->receivedPackets = facts.first.statistics->receivedPackets;
    ExpectFault(CheckFirewall(facts),
        "1,000 datagrams for UDP port 5000 have just reached this machine, and none the proxy",
        "nft list ruleset");
    facts.arrivals->input = 2; // may be under way
    ExpectNotApplicable(CheckFirewall(facts));
    facts.arrivals.reset();
    ExpectNotApplicable(CheckFirewall(facts));
}

TEST(DoctorArrivals, WhereSomethingElseExplainsItNoFirewallIsSuspected)
{
    DoctorFacts facts = Healthy();
    facts.second.statistics->receivedPackets = facts.first.statistics->receivedPackets;
    DoctorFacts refused = facts;
    refused.second.sourceFilterDrops = 6;
    ExpectNotApplicable(CheckFirewall(refused));
    DoctorFacts notJoined = facts;
    notJoined.interfaces[0].groups.clear();
    ExpectNotApplicable(CheckFirewall(notJoined));
    DoctorFacts noPort = facts;
    noPort.sockets[0].pid = PID + 1;
    ExpectNotApplicable(CheckFirewall(noPort));
    DoctorFacts stopped = facts;
    stopped.second.statistics.reset();
    ExpectNotApplicable(CheckFirewall(stopped));
}

TEST(DoctorArrivals, PingsOfOneWhoIsNotInTheListAreAFault)
{
    DoctorFacts facts = Healthy();
    facts.arrivals->pingers = { PingFrom(LISTED, 9) };
    ExpectNotApplicable(CheckFirewall(facts));
    facts.arrivals->pingers.push_back(PingFrom(UNKNOWN, 9));
    ExpectFault(CheckFirewall(facts), "pings of 10.0.0.9 for UDP port 5002 have just reached this machine");
    DoctorFacts elsewhere = facts;
    elsewhere.sockets.push_back(Held(0x0A0000FE, 5002, PID + 1, "player"));
    ExpectNotApplicable(CheckFirewall(elsewhere));
    DoctorFacts full = facts;
    full.second.statistics->receivers.assign(50, "10.0.0.1");
    ExpectNotApplicable(CheckFirewall(full));
    DoctorFacts noPort = facts;
    noPort.sockets[1].pid = PID + 1;
    ExpectNotApplicable(CheckFirewall(noPort));
}

TEST(DoctorArrivals, TwoThatAreOneReceiverToTheProxyAreAFault)
{
    DoctorFacts facts = Healthy();
    ExpectNotApplicable(CheckPings(facts), "nobody has pinged");
    facts.arrivals->pingers = { PingFrom(1, 9), PingFrom(2, 9), PingFrom(1, 10, 7), PingFrom(1, 11, 8) };
    ExpectGood(CheckPings(facts), "4 receivers have pinged");
    facts.arrivals->pingers.push_back(PingFrom(1, 10));
    ExpectFault(CheckPings(facts), "from 0.0.0.1:9 and 0.0.0.1:10 without a stream ID");
    facts.arrivals->pingers = { PingFrom(1, 9, 7), PingFrom(2, 9, 7) };
    ExpectFault(CheckPings(facts), "from 0.0.0.1:9 and 0.0.0.2:9 with one stream ID");
    facts.arrivals.reset();
    ExpectNotApplicable(CheckPings(facts), "only root");
    ExpectNotApplicable(CheckPings(BeforeTheStart()), "does not run yet");
}

} // namespace arqctl::doctor_tests
