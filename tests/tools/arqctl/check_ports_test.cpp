#include "tools/arqctl/doctor_fixture.h"

namespace arqctl::doctor_tests {

TEST(DoctorPorts, BeforeTheStartEachIsFreeOrNamesWhoHasIt)
{
    DoctorFacts facts = BeforeTheStart();
    ExpectGood(CheckListenPort(facts), "239.1.1.1:5000 is free");
    ExpectGood(CheckPingPort(facts), "UDP port 5002 is free");
    ExpectGood(CheckRequestPort(facts), "UDP port 5003 is free");
    ExpectGood(CheckLockPort(facts), "UDP port 32124 is free");
    facts.sockets
        = { Held(0x7F000001, 5002, 99, "thief"), Held(0, 5003, 0), Held(0, 32124, 98), Held(0, 5000, 97) };
    ExpectFault(
        CheckPingPort(facts), "UDP port 5002, the ping port, is held by thief (process 99)", "kill 99");
    ExpectFault(CheckRequestPort(facts), "user 7's socket 5003", "ss -ulpn");
    ExpectFault(CheckLockPort(facts), "tx_proxy (process 98)");
    EXPECT_NE(CheckLockPort(facts).advice.find("-I"), std::string::npos);
    ExpectFault(CheckListenPort(facts), "tx_proxy (process 97)");
}

TEST(DoctorPorts, AGroupIsSharedAndAnotherGroupIsNoNeighbour)
{
    DoctorFacts facts = BeforeTheStart();
    facts.sockets = { Held(GROUP, 5000, 97), Held(0xEF020202, 5000, 96), Held(0x0A000001, 5000, 95) };
    ExpectGood(CheckListenPort(facts), "is free");
    facts.options.group.clear();
    ExpectFault(CheckListenPort(facts), "process 97");
}

TEST(DoctorPorts, OnesThatTheProxyDoesNotHoldAreFaults)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckPingPort(facts), "is the proxy's");
    facts.sockets.erase(facts.sockets.begin() + 1);
    ExpectFault(CheckPingPort(facts), "does not hold UDP port 5002, the ping port");
    facts.sockets.push_back(Held(0, 5002, 99, "thief"));
    ExpectFault(CheckPingPort(facts), "is held by thief (process 99)", "kill 99");
    facts.sockets.push_back(Held(0, 5002, PID));
    ExpectFault(CheckPingPort(facts), "held by thief (process 99) too");
}

TEST(DoctorPorts, AnIpv6SocketIsAWarningBeforeTheStartAndNothingBesideTheProxys)
{
    DoctorFacts facts = BeforeTheStart();
    facts.sockets = { Held(0, 5002, 99, "six") };
    facts.sockets[0].isIpv6 = true;
    ExpectWarning(CheckPingPort(facts), "six (process 99) on IPv6, maybe for IPv4 too");
    DoctorFacts running = Healthy();
    running.sockets.push_back(facts.sockets[0]);
    ExpectGood(CheckPingPort(running));
}

TEST(DoctorPorts, WithoutTheRightToLookNothingIsSaid)
{
    DoctorFacts facts = Healthy();
    for (HeldSocket& held : facts.sockets)
        held.pid = 0;
    ExpectNotApplicable(CheckPingPort(facts), "without root");
    facts.isNetworkSeen = false;
    ExpectNotApplicable(CheckPingPort(facts), "network is not to be seen");
}

TEST(DoctorPorts, PortZeroAndTwoOfOneNumberAreFaults)
{
    DoctorFacts facts = BeforeTheStart();
    facts.options.instance = 65536 - 32123;
    ExpectFault(CheckLockPort(facts), "the lock port is 0");
    facts.options.listenPort = 5002;
    ExpectFault(CheckListenPort(facts), "is the ping port too");
    ExpectFault(CheckPingPort(facts), "is the listen port too");
    facts.options.requestPort = 5002;
    facts.options.listenPort = 5000;
    ExpectNotApplicable(CheckPingPort(facts), "-p and -r are equal");
    ExpectGood(CheckRequestPort(facts));
    facts.options.destinations.clear();
    ExpectFault(CheckPingPort(facts), "is the request port too");
}

TEST(DoctorPorts, LowOnesTakeARight)
{
    DoctorFacts facts = BeforeTheStart();
    facts.options.requestPort = 1023;
    ExpectGood(CheckRequestPort(facts));
    facts.user.mayBindLowPorts = false;
    ExpectFault(CheckRequestPort(facts), "may not bind UDP port 1023");
    facts.firstUnprivilegedPort = 1023;
    ExpectGood(CheckRequestPort(facts));
}

TEST(DoctorEphemeralPorts, OnesThatTheSystemGivesAwayAreWarnedAboutUnlessReserved)
{
    DoctorFacts facts = BeforeTheStart();
    ExpectGood(CheckEphemeralPorts(facts), "32768 to 60999");
    facts.options.instance = 645; // 32768
    ExpectWarning(
        CheckEphemeralPorts(facts), "lock port 32768", "sysctl -w net.ipv4.ip_local_reserved_ports=32768");
    facts.options.instance = 644;
    ExpectGood(CheckEphemeralPorts(facts));
    facts.options.listenPort = 60999;
    facts.options.mediaPort = 40000;
    facts.reservedPorts = { { 100, 200 } };
    facts.reservedPortsText = "100-200";
    ExpectWarning(CheckEphemeralPorts(facts), "40000,60999",
        "sysctl -w net.ipv4.ip_local_reserved_ports=100-200,40000,60999");
    facts.reservedPorts = { { 40000, 40000 }, { 60000, 60999 } };
    ExpectGood(CheckEphemeralPorts(facts));
    facts.ephemeralPorts.reset();
    ExpectNotApplicable(CheckEphemeralPorts(facts));
}

} // namespace arqctl::doctor_tests
