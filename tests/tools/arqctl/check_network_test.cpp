#include "tools/arqctl/doctor_fixture.h"

namespace arqctl::doctor_tests {

TEST(DoctorGroup, ASecondWordThatIsNoGroupHasNoEffect)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckListenAddress(facts), "the group 239.1.1.1");
    facts.options.group.clear();
    ExpectGood(CheckListenAddress(facts), "every address");
    facts.options.idleAddress = "10.0.0.9";
    ExpectWarning(CheckListenAddress(facts), "'10.0.0.9' is no group");
}

TEST(DoctorGroup, WithoutARouteTheLikelyInterfaceIsProposed)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckGroupRoute(facts), "leads to eth0");
    facts.inputGroupInterface = "";
    facts.interfaces = { Ethernet("lo"), Ethernet("eth1"), Ethernet("eth2") };
    facts.interfaces[0].isLoopback = true;
    facts.interfaces[1].isUp = false;
    ExpectFault(CheckGroupRoute(facts), "no route leads to 239.1.1.1", "ip route add 224.0.0.0/4 dev eth2");
    facts.inputGroupInterface.reset();
    ExpectNotApplicable(CheckGroupRoute(facts));
    facts.options.group.clear();
    ExpectNotApplicable(CheckGroupRoute(facts), "no group");
}

TEST(DoctorGroup, ItsInterfaceIsUpAndTakesMulticast)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckGroupInterface(facts), "eth0 is up");
    InterfaceFacts& eth0 = facts.interfaces[0];
    eth0.isRunning = false;
    ExpectFault(CheckGroupInterface(facts), "no carrier");
    eth0.isMulticast = false;
    ExpectFault(CheckGroupInterface(facts), "takes no multicast", "ip link set eth0 multicast on");
    eth0.isLoopback = true;
    ExpectWarning(CheckGroupInterface(facts), "only what this machine sends");
    eth0.isUp = false;
    ExpectFault(CheckGroupInterface(facts), "is down", "ip link set eth0 up");
    eth0.groups.clear();
    facts.inputGroupInterface = "";
    ExpectNotApplicable(CheckGroupInterface(facts));
    facts.isNetworkSeen = false;
    ExpectNotApplicable(CheckGroupInterface(facts), "not to be seen");
}

TEST(DoctorGroup, OneThatIsNotJoinedBringsNothing)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckGroupJoined(facts), "is joined on eth0");
    facts.inputGroupInterface = "eth1";
    ExpectWarning(CheckGroupJoined(facts), "now leads to eth1");
    facts.interfaces[0].groups = { GROUP + 1 };
    ExpectFault(CheckGroupJoined(facts), "joined on no interface");
    ExpectNotApplicable(CheckGroupJoined(BeforeTheStart()));
}

TEST(DoctorSourceFilter, StrictIsGoodOnlyWhereTheRouteToSendersLeads)
{
    DoctorFacts facts = Healthy();
    InterfaceFacts& eth0 = facts.interfaces[0];
    ExpectGood(CheckSourceFilter(facts), "takes every sender");
    eth0.sourceFilter = 2;
    ExpectGood(CheckSourceFilter(facts), "that has a route");
    eth0.sourceFilter = 1;
    ExpectGood(CheckSourceFilter(facts), "leads too");
    facts.defaultInterface = "eth1";
    ExpectWarning(
        CheckSourceFilter(facts), "default route leads to eth1", "sysctl -w net.ipv4.conf.eth0.rp_filter=2");
    facts.defaultInterface = "";
    ExpectWarning(CheckSourceFilter(facts), "default route is missing");
    facts.second.statistics->receivedPackets = facts.first.statistics->receivedPackets;
    ExpectFault(CheckSourceFilter(facts), "no input comes");
}

TEST(DoctorSourceFilter, AKnownSenderIsJudgedByItsOwnRoute)
{
    DoctorFacts facts = Healthy();
    facts.interfaces[0].sourceFilter = 1;
    facts.defaultInterface = "eth1";
    facts.source = "10.9.9.9";
    facts.sourceInterface = "eth0";
    ExpectGood(CheckSourceFilter(facts));
    facts.sourceInterface = "eth1";
    ExpectFault(CheckSourceFilter(facts), "the route to 10.9.9.9 leads to eth1");
    facts.sourceInterface = "";
    ExpectFault(CheckSourceFilter(facts), "the route to 10.9.9.9 is missing");
}

TEST(DoctorSourceFilter, DatagramsThatItRefusesMeanwhileAreAFault)
{
    DoctorFacts facts = Healthy();
    facts.interfaces[0].sourceFilter = 1;
    facts.second.sourceFilterDrops = 12;
    ExpectFault(
        CheckSourceFilter(facts), "just refused 7 datagrams", "sysctl -w net.ipv4.conf.eth0.rp_filter=2");
    facts.interfaces[0].sourceFilter = -1;
    ExpectNotApplicable(CheckSourceFilter(facts));
}

TEST(DoctorOutput, AGroupNeedsARoute)
{
    DoctorFacts facts = Healthy();
    ExpectNotApplicable(CheckOutputRoute(facts));
    facts.options.unicastPort = 5005;
    facts.options.destinations = { "239.5.5.5" };
    facts.outputGroupInterface = "";
    ExpectFault(CheckOutputRoute(facts), "no route leads to 239.5.5.5", "ip route add 224.0.0.0/4 dev eth0");
    facts.outputGroupInterface = "eth0";
    ExpectGood(CheckOutputRoute(facts));
}

TEST(DoctorOutput, EachInterfaceOfNIsThereAndUp)
{
    DoctorFacts facts = Healthy();
    ExpectNotApplicable(CheckOutputInterfaces(facts));
    facts.options.interfaces = 1;
    ExpectGood(CheckOutputInterfaces(facts), "eth0 is up");
    facts.options.unicastPort = 5005;
    ExpectNotApplicable(CheckOutputInterfaces(facts), "there is none");
    facts.options.unicastPort = 0;
    facts.options.interfaces = 3;
    ExpectFault(CheckOutputInterfaces(facts), "eth1, which -n 3 asks for, is missing");
    facts.interfaces = { Ethernet("eth0"), Ethernet("eth1"), Ethernet("eth2") };
    ExpectGood(CheckOutputInterfaces(facts), "eth0 to eth2 are up");
    facts.interfaces[2].isUp = false; // media leave by the first two
    ExpectWarning(CheckOutputInterfaces(facts), "is down", "ip link set eth2 up");
    facts.interfaces[1].isRunning = false;
    ExpectFault(CheckOutputInterfaces(facts), "eth1, which -n 3 asks for, has no carrier");
    facts.options.interfaces = 9;
    facts.interfaces = { Ethernet("eth0"), Ethernet("eth1"), Ethernet("eth2"), Ethernet("eth3") };
    ExpectGood(CheckOutputInterfaces(facts), "eth0 to eth3");
}

TEST(DoctorKernel, ATableOfConnectionsThatFillsIsSeen)
{
    DoctorFacts facts = Healthy();
    facts.connections = 699;
    ExpectGood(CheckConnections(facts), "69 %");
    facts.connections = 700;
    ExpectWarning(CheckConnections(facts), "70 %", "sysctl -w net.netfilter.nf_conntrack_max=2000");
    facts.connections = 900;
    ExpectFault(CheckConnections(facts), "90 %");
    facts.connections.reset();
    ExpectNotApplicable(CheckConnections(facts));
    ExpectNotApplicable(CheckFirewall(facts), "UDP 5000, 5002 and 5003");
}

TEST(DoctorNetwork, MessagesThatComeBackNowAreAWarningAndOldOnesAreNot)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckUnreachable(facts));
    facts.second.unreachableMessages = 8;
    ExpectWarning(CheckUnreachable(facts), "1 message has just come back");
    facts.second.unreachableMessages = 9;
    ExpectWarning(CheckUnreachable(facts), "2 messages have just come back");
    ExpectNotApplicable(CheckUnreachable(BeforeTheStart()));
}

TEST(DoctorNetwork, DatagramsForClosedPortsAreAWarningThatNamesTheProxysOwn)
{
    DoctorFacts facts = Healthy();
    ExpectGood(CheckClosedPorts(facts));
    facts.second.closedPortDatagrams = 7;
    ExpectWarning(CheckClosedPorts(facts), "1 datagram has just come to UDP ports where nobody listens");
    EXPECT_NE(CheckClosedPorts(facts).advice.find("5000 takes input, 5002 pings, 5003 requests"),
        std::string::npos);
    facts.second.closedPortDatagrams = 2006;
    ExpectWarning(CheckClosedPorts(facts), "2,000 datagrams have");
    facts.second.closedPortDatagrams.reset();
    ExpectNotApplicable(CheckClosedPorts(facts), "not to be seen");
    ExpectNotApplicable(CheckClosedPorts(BeforeTheStart()));
}

} // namespace arqctl::doctor_tests
