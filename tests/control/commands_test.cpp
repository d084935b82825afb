#include "control/commands.h"

#include <netinet/in.h>
#include <resolv.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "support/replicator_fixture.h"

namespace {

using namespace test_support;

// Keeps host names of this thread off the network: the resolver asks a port here that nobody serves.
void ResolveNothing()
{
    ASSERT_EQ(res_init(), 0);
    _res.nscount = 1;
    _res.nsaddr_list[0] = SocketAddress("127.0.0.1", 1);
    _res.retrans = 1;
    _res.retry = 1;
}

class CommandsTest : public ReplicatorTest {
protected:
    CommandsTest()
    {
        ResolveNothing();
        const CapturedOutput output;
        (void)BuildStopped();
    }

    std::string Reply(const std::string& request)
    {
        const CapturedOutput output;
        ::Reply reply;
        std::memset(reply.text, '#', sizeof(reply.text));
        CarryOutCommand(*m_replicator, request.c_str(), reply);
        EXPECT_LT(strnlen(reply.text, sizeof(reply.text)), sizeof(reply.text));
        return reply.text;
    }
    ReceiveStats& Rx() { return const_cast<ReceiveStats&>(m_replicator->RxStats()); }
    TransmitStats& Tx() { return const_cast<TransmitStats&>(m_replicator->TxStats()); }
};

TEST_F(CommandsTest, AddMakesAStreamAndAnswersWithItsArgument)
{
    EXPECT_EQ(Reply("Add 127.0.0.2"), "OK: Adding: 127.0.0.2");
    EXPECT_EQ(Reply("Add   127.0.0.3  more"), "OK: Adding: 127.0.0.3");
    EXPECT_EQ(List(), "127.0.0.2,127.0.0.3");
}

TEST_F(CommandsTest, AddAndDeleteAnswerOkWhateverBecameOfThem)
{
    EXPECT_EQ(Reply("Add 10.0.0.1:5000"), "OK: Adding: 10.0.0.1:5000");
    EXPECT_EQ(Reply("Delete 10.0.0.9"), "OK: Deleting: 10.0.0.9");
    EXPECT_EQ(CountOfStreams(*m_replicator), 0);
}

TEST_F(CommandsTest, AMissingArgumentIsAnEmptyText)
{
    EXPECT_EQ(Reply("Add"), "OK: Adding: ");
    EXPECT_EQ(Reply("Delete"), "OK: Deleting: ");
    EXPECT_EQ(Reply("Add "), "OK: Adding: ");
    EXPECT_EQ(CountOfStreams(*m_replicator), 0);
}

TEST_F(CommandsTest, DeleteRemovesTheStream)
{
    (void)Reply("Add 127.0.0.2");
    EXPECT_EQ(Reply("Delete 127.0.0.2"), "OK: Deleting: 127.0.0.2");
    EXPECT_EQ(CountOfStreams(*m_replicator), 0);
}

TEST_F(CommandsTest, PercentSignsOfAnArgumentAreOnlyText)
{
    EXPECT_EQ(Reply("Add %s%n%d"), "OK: Adding: %s%n%d");
    EXPECT_EQ(Reply("Delete %s%n%d"), "OK: Deleting: %s%n%d");
}

TEST_F(CommandsTest, AnArgumentOfTheWholeRequestLengthComesBackWhole)
{
    const std::string argument(1020, '1');
    EXPECT_EQ(Reply("Add " + argument), "OK: Adding: " + argument);
    const std::string shorter(1017, '1');
    EXPECT_EQ(Reply("Delete " + shorter), "OK: Deleting: " + shorter);
}

TEST_F(CommandsTest, AnArgumentLongerThanAnyReplyIsCutOff)
{
    const std::string reply = Reply("Add " + std::string(5000, '1'));
    EXPECT_EQ(reply, ("OK: Adding: " + std::string(5000, '1')).substr(0, ::Reply::BYTES - 1));
}

TEST_F(CommandsTest, ListGivesTheStreamsAndNothingWithoutAny)
{
    EXPECT_EQ(Reply("List"), "");
    (void)Reply("Add 127.0.0.2");
    (void)Reply("Add 127.0.0.3");
    EXPECT_EQ(Reply("List"), "127.0.0.2,127.0.0.3");
}

TEST_F(CommandsTest, AnythingElseIsNotImplemented)
{
    for (const char* request : { "List\n", "list", "Lis", "Lists", "", " ", "      ", "\n", "Status" })
        EXPECT_EQ(Reply(request), "command not implemented") << request;
    EXPECT_EQ(Reply(std::string(1024, 'x')), "command not implemented");
    EXPECT_EQ(Reply(std::string(1024, ' ')), "command not implemented");
}

TEST_F(CommandsTest, LeadingBlanksAreSkipped)
{
    EXPECT_EQ(Reply("  StatClear"), "OK: Stat Reset");
}

TEST_F(CommandsTest, DebugAnswersNothingAndDumpsToStandardError)
{
    CapturedOutput output;
    ::Reply reply { "stale" };
    CarryOutCommand(*m_replicator, "Debug", reply);
    EXPECT_STREQ(reply.text, "");
    EXPECT_EQ(output.Err(),
        "\nm_bRunning 0\nm_usSeqNum 0\nm_nNumStreams 0\nm_impair.m_mode 0\nm_impair.m_dist.m_value 99\n"
        "m_impair.m_burst.m_value 1\nm_nDropPacket 0\n");
}

TEST_F(CommandsTest, AllStatsAndRxStatShowTheCountersAndTheStreams)
{
    Rx().m_nRxPackets = 0x1FFFFFFFFULL;
    Rx().m_nRxBitrate = 12345;
    Rx().m_nRxLoss = 6;
    Tx().m_nTxPackets = 0xFFFFFFFFFFFFFFFFULL;
    Tx().m_nTxBitrate = 0xFFFFFFFF;
    const std::string counters = "RECV_PACKETS=8589934591\nRECV_BITRATE=12345\nRECV_LOSS=6\n"
                                 "SEND_PACKETS=18446744073709551615\nSEND_BITRATE=-1\nCLIENTS=";
    EXPECT_EQ(Reply("AllStats"), counters);
    (void)Reply("Add 127.0.0.2");
    (void)Reply("Add 127.0.0.3");
    EXPECT_EQ(Reply("AllStats"), counters + "127.0.0.2,127.0.0.3");
    EXPECT_EQ(Reply("RxStat"), "NET_TOTAL_PACKETS=8589934591\nNET_LOSS=6\n");
}

TEST_F(CommandsTest, FiftyLongAddressesFitIntoTheReply)
{
    std::string all;
    for (int i = 100; i < 150; ++i) {
        const std::string address = "127.100.100." + std::to_string(i);
        (void)Reply("Add " + address);
        all += (all.empty() ? "" : ",") + address;
    }
    EXPECT_EQ(Reply("List"), all);
    const std::string reply = Reply("AllStats");
    EXPECT_EQ(reply.substr(reply.find("CLIENTS=")), "CLIENTS=" + all);
}

TEST_F(CommandsTest, EachResetClearsItsOwnCounters)
{
    const auto fill = [this] {
        Rx().m_nRxPackets = 1;
        Rx().m_nRxLoss = 2;
        Rx().m_nRxBitrate = 3;
        Rx().m_bFirstRxPacket = false;
        Tx().m_nTxPackets = 4;
        Tx().m_nTxBitrate = 5;
    };
    const auto counters = [this] { return Reply("AllStats") + (Rx().m_bFirstRxPacket ? " first" : ""); };
    fill();
    EXPECT_EQ(Reply("RxStatClear"), "OK: Rx Stat Reset");
    EXPECT_EQ(counters(),
        "RECV_PACKETS=0\nRECV_BITRATE=3\nRECV_LOSS=0\nSEND_PACKETS=4\nSEND_BITRATE=5\nCLIENTS= first");
    fill();
    EXPECT_EQ(Reply("TxStatClear"), "OK: Tx Stat Reset");
    EXPECT_EQ(
        counters(), "RECV_PACKETS=1\nRECV_BITRATE=3\nRECV_LOSS=2\nSEND_PACKETS=0\nSEND_BITRATE=0\nCLIENTS=");
    fill();
    EXPECT_EQ(Reply("StatClear"), "OK: Stat Reset");
    EXPECT_EQ(counters(),
        "RECV_PACKETS=0\nRECV_BITRATE=3\nRECV_LOSS=0\nSEND_PACKETS=0\nSEND_BITRATE=0\nCLIENTS= first");
}

} // namespace
