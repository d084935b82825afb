#include "control/status_poll.h"

#include <sys/socket.h>

#include <cstring>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "base/byte_order.h"
#include "control/control_context.h"
#include "control/unix_address.h"
#include "pacing/ms_clock.h"
#include "support/replicator_fixture.h"
#include "support/temp_root.h"

namespace {

using namespace test_support;

constexpr int32_t POLLED_INSTANCE = 2; // reports the stream with index 1

class StatusPollTest : public ReplicatorTest {
protected:
    StatusPollTest()
    {
        const CapturedOutput output;
        m_context.replicator = &BuildStopped();
        m_context.instance = POLLED_INSTANCE;
    }

    // A poll that is due; gives back what it printed.
    std::string Poll()
    {
        m_context.nextPollMs = GetTimeMs();
        CapturedOutput output;
        PollImpairment(m_context);
        return output.Err();
    }
    std::string Toggle()
    {
        WriteFile(ImpairmentTogglePath(POLLED_INSTANCE), "anything");
        return Poll();
    }
    void AddTwoStreams()
    {
        const CapturedOutput output;
        EXPECT_EQ(m_replicator->AddStream("127.0.0.2", 0), 1);
        EXPECT_EQ(m_replicator->AddStream("127.0.0.3", 0), 1);
        for (int32_t i = 0; i < 2; ++i) {
            ReplaceEngine(Stream(i)).m_stats = { 10U + static_cast<uint32_t>(i), 2, 3, 4, 5, 6, 7, 8 };
        }
    }
    Impairment& Impair() { return m_replicator->m_impair; }

    TempRoot m_root;
    const PlainWord<int32_t> m_running { 1 };
    ControlContext m_context { m_running };
};

TEST_F(StatusPollTest, TheToggleFileSwitchesImpairmentOnAndOffAndIsRemoved)
{
    EXPECT_EQ(Toggle(), "Impairment ON\n");
    EXPECT_FALSE(FileExists(ImpairmentTogglePath(POLLED_INSTANCE)));
    EXPECT_EQ(Impair().m_mode, 1);
    EXPECT_EQ(Impair().m_burst.m_min, 1);
    EXPECT_EQ(Impair().m_burst.m_max, 10);
    EXPECT_EQ(Impair().m_burst.m_range, 10);
    EXPECT_EQ(Impair().m_burst.m_value, 1);
    EXPECT_EQ(Impair().m_dist.m_min, 100);
    EXPECT_EQ(Impair().m_dist.m_max, 200);
    EXPECT_EQ(Impair().m_dist.m_range, 101);
    EXPECT_EQ(Impair().m_dist.m_value, 99);
    EXPECT_EQ(Poll(), "");
    Impair().m_dist.m_value = 42;
    EXPECT_EQ(Toggle(), "Impairment OFF\n");
    EXPECT_FALSE(FileExists(ImpairmentTogglePath(POLLED_INSTANCE)));
    EXPECT_EQ(Impair().m_mode, 0);
    EXPECT_EQ(Impair().m_dist.m_value, 42);
}

TEST_F(StatusPollTest, AnotherInstancesToggleFileIsLeftAlone)
{
    WriteFile(ImpairmentTogglePath(POLLED_INSTANCE + 1));
    EXPECT_EQ(Poll(), "");
    EXPECT_TRUE(FileExists(ImpairmentTogglePath(POLLED_INSTANCE + 1)));
}

TEST_F(StatusPollTest, ThePollWorksOnceASecondAtMost)
{
    const uint32_t before = GetTimeMs();
    EXPECT_EQ(Toggle(), "Impairment ON\n");
    const uint32_t after = GetTimeMs();
    EXPECT_GE(TicksSince(m_context.nextPollMs, before), 1000);
    EXPECT_LE(TicksSince(m_context.nextPollMs, after), 1000);
    WriteFile(ImpairmentTogglePath(POLLED_INSTANCE));
    m_context.nextPollMs = GetTimeMs() + 60000;
    const uint32_t next = m_context.nextPollMs;
    CapturedOutput output;
    PollImpairment(m_context);
    EXPECT_EQ(output.Err(), "");
    EXPECT_TRUE(FileExists(ImpairmentTogglePath(POLLED_INSTANCE)));
    EXPECT_EQ(m_context.nextPollMs, next);
    EXPECT_EQ(Poll(), "Impairment OFF\n");
}

TEST_F(StatusPollTest, ThePollTimeMayLieAcrossTheWrapOfTheClock)
{
    WriteFile(ImpairmentTogglePath(POLLED_INSTANCE));
    m_context.nextPollMs = GetTimeMs() - 0x70000000U;
    const CapturedOutput output;
    PollImpairment(m_context);
    EXPECT_EQ(Impair().m_mode, 1);
}

TEST_F(StatusPollTest, SettingsAreReadPrintedInOrderAndTheFileKept)
{
    WriteFile(ImpairmentSettingsPath(POLLED_INSTANCE),
        "mode=2\nmax_dist=40\nmax_drop = 6 # six\nmin_dist=30\nmin_drop=\"5\"\n");
    EXPECT_EQ(
        Toggle(), "min_drop = 5\nmin_dist = 30\nmax_drop = 6\nmax_dist = 40\nmode = 2\nImpairment ON\n");
    EXPECT_TRUE(FileExists(ImpairmentSettingsPath(POLLED_INSTANCE)));
    EXPECT_EQ(Impair().m_mode, 2);
    EXPECT_EQ(Impair().m_burst.m_min, 5);
    EXPECT_EQ(Impair().m_burst.m_max, 6);
    EXPECT_EQ(Impair().m_dist.m_min, 30);
    EXPECT_EQ(Impair().m_dist.m_max, 40);
    EXPECT_GE(Impair().m_dist.m_value, 30);
    EXPECT_LE(Impair().m_dist.m_value, 41);
}

TEST_F(StatusPollTest, MissingAndEmptySettingsTakeTheirDefaultsAndOddOnesWhatStrtolGives)
{
    WriteFile(
        ImpairmentSettingsPath(POLLED_INSTANCE), "min_drop==\nmin_dist=12abc\nmax_drop=abc\nmax_dist=\n");
    EXPECT_EQ(
        Toggle(), "min_drop = 1\nmin_dist = 12\nmax_drop = 0\nmax_dist = 200\nmode = 1\nImpairment ON\n");
}

TEST_F(StatusPollTest, AnUnreadableSettingsFileGivesDefaultsForEveryKey)
{
    std::filesystem::create_directory(ImpairmentSettingsPath(POLLED_INSTANCE).c_str());
    EXPECT_EQ(
        Toggle(), "min_drop = 1\nmin_dist = 100\nmax_drop = 10\nmax_dist = 200\nmode = 1\nImpairment ON\n");
}

TEST_F(StatusPollTest, Mode0IsSwitchedOnAgainByTheNextToggle)
{
    WriteFile(ImpairmentSettingsPath(POLLED_INSTANCE), "mode=0");
    EXPECT_NE(Toggle().find("mode = 0\nImpairment ON\n"), std::string::npos);
    EXPECT_EQ(Impair().m_mode, 0);
    WriteFile(ImpairmentSettingsPath(POLLED_INSTANCE), "mode=7");
    EXPECT_NE(Toggle().find("mode = 7\nImpairment ON\n"), std::string::npos);
    EXPECT_EQ(Impair().m_mode, 7);
    EXPECT_EQ(Toggle(), "Impairment OFF\n");
}

TEST_F(StatusPollTest, AToggleThatCannotBeRemovedTogglesAgain)
{
    std::filesystem::create_directory(ImpairmentTogglePath(POLLED_INSTANCE).c_str());
    EXPECT_EQ(Poll(), "Impairment ON\n");
    EXPECT_EQ(Poll(), "Impairment OFF\n");
}

TEST_F(StatusPollTest, WithoutTheStatusFlagAClearFileStaysAndNothingIsReset)
{
    AddTwoStreams();
    WriteFile(ClearRequestPath(POLLED_INSTANCE));
    EXPECT_EQ(Poll(), "");
    EXPECT_TRUE(FileExists(ClearRequestPath(POLLED_INSTANCE)));
    ArqSendStats stats {};
    EXPECT_EQ(m_replicator->GetStreamStats(&stats, 1), 1);
    EXPECT_EQ(stats.retransmitted, 11U);
    const int unopened = m_context.statusSocket;
    CapturedOutput output;
    OpenStatusSocket(m_context);
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(m_context.statusSocket, unopened);
}

// With the flag: records go to a socket that another program has opened.
class StatusRecordTest : public StatusPollTest {
protected:
    StatusRecordTest() : m_listener(socket(AF_UNIX, SOCK_DGRAM, 0))
    {
        const sockaddr_un address = UnixAddress(StatusSocketPath(POLLED_INSTANCE));
        EXPECT_EQ(bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        m_context.statusFlag = 1;
        CapturedOutput output;
        OpenStatusSocket(m_context);
        m_socket.Reset(m_context.statusSocket);
        EXPECT_EQ(output.Err(), "Created ARQ TX Status Socket\n");
        EXPECT_STREQ(m_context.statusAddress.sun_path, StatusSocketPath(POLLED_INSTANCE).c_str());
    }

    // Length of the next record, or -1 when there is none.
    ssize_t Read(ArqSendStats& stats)
    {
        uint8_t data[64];
        const ssize_t count = recv(m_listener.Get(), data, sizeof(data), MSG_DONTWAIT);
        if (count >= static_cast<ssize_t>(sizeof(stats)))
            std::memcpy(&stats, data, sizeof(stats));
        return count;
    }

    UniqueFd m_listener;
    UniqueFd m_socket;
};

TEST_F(StatusRecordTest, EachPollSendsThe32BytesOfTheInstancesStream)
{
    AddTwoStreams();
    EXPECT_EQ(Poll(), "");
    ArqSendStats stats {};
    EXPECT_EQ(Read(stats), 32);
    EXPECT_EQ(stats.retransmitted, 11U);
    EXPECT_EQ(stats.arqIntervalMs, 8U);
    EXPECT_EQ(Read(stats), -1);
    PollImpairment(m_context); // not due
    EXPECT_EQ(Read(stats), -1);
}

TEST_F(StatusRecordTest, AClearFileResetsTheStreamBeforeTheRecordIsSentAndIsRemoved)
{
    AddTwoStreams();
    WriteFile(ClearRequestPath(POLLED_INSTANCE));
    EXPECT_EQ(Poll(), "");
    EXPECT_FALSE(FileExists(ClearRequestPath(POLLED_INSTANCE)));
    ArqSendStats stats {};
    EXPECT_EQ(Read(stats), 32);
    EXPECT_EQ(stats.retransmitted, 0U);
    EXPECT_EQ(m_replicator->GetStreamStats(&stats, 0), 1);
    EXPECT_EQ(stats.retransmitted, 10U);
}

TEST_F(StatusRecordTest, WithoutThatStreamNoRecordIsSentButTheClearFileIsRemoved)
{
    WriteFile(ClearRequestPath(POLLED_INSTANCE));
    EXPECT_EQ(Poll(), "");
    EXPECT_FALSE(FileExists(ClearRequestPath(POLLED_INSTANCE)));
    ArqSendStats stats {};
    EXPECT_EQ(Read(stats), -1);
}

TEST_F(StatusRecordTest, ALackingOrFullListenerDoesNotHoldThePoll)
{
    AddTwoStreams();
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(Poll(), "");
    m_listener.Reset();
    EXPECT_EQ(Poll(), "");
}

} // namespace
