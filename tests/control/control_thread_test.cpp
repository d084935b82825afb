#include "control/control_thread.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "control/control_context.h"
#include "control/unix_address.h"
#include "support/high_descriptor.h"
#include "support/replicator_fixture.h"
#include "support/system_hooks.h"
#include "support/temp_root.h"

namespace {

using namespace test_support;

constexpr int32_t INSTANCE = 3;

// One local program on the control socket.
class Client {
public:
    Client() : m_socket(socket(AF_UNIX, SOCK_STREAM, 0))
    {
        const sockaddr_un address = UnixAddress(ControlSocketPath(INSTANCE));
        EXPECT_TRUE(WaitFor([&] {
            return connect(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
        }));
    }

    void Send(const std::string& request)
    {
        EXPECT_EQ(send(m_socket.Get(), request.data(), request.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(request.size()));
    }
    bool HasReply(int timeoutMs = LONGEST_WAIT_MS) const
    {
        pollfd wanted { m_socket.Get(), POLLIN, 0 };
        return poll(&wanted, 1, timeoutMs) == 1;
    }
    // The next reply; empty when none came or the connection was closed.
    std::string Reply()
    {
        char text[4096];
        const ssize_t count = HasReply() ? recv(m_socket.Get(), text, sizeof(text), MSG_DONTWAIT) : 0;
        return { text, static_cast<size_t>(count > 0 ? count : 0) };
    }
    // What comes until it is as long as `text`: the replies to several requests may come together.
    std::string RepliesLike(const std::string& text)
    {
        std::string replies;
        while (replies.size() < text.size()) {
            const std::string next = Reply();
            if (next.empty())
                break;
            replies += next;
        }
        return replies;
    }
    std::string Ask(const std::string& request)
    {
        Send(request);
        return Reply();
    }
    // Waits until the other side has read everything.
    void WaitUntilRead() const
    {
        EXPECT_TRUE(WaitFor([this] {
            int unread = -1;
            return ioctl(m_socket.Get(), SIOCOUTQ, &unread) == 0 && unread == 0;
        }));
    }
    void Close() { m_socket.Reset(); }

private:
    UniqueFd m_socket;
};

class ControlThreadTest : public ReplicatorTest {
protected:
    ControlThreadTest()
    {
        m_context.replicator = &BuildStopped();
        m_waits.emplace();
        m_context.instance = INSTANCE;
    }
    ~ControlThreadTest() override { End(); }

    void Run()
    {
        m_thread = std::thread([this] { m_bResult = process_request_thread(m_context); });
    }
    // Clears the run flag and waits for the thread.
    void End()
    {
        m_running = 0;
        if (m_thread.joinable())
            m_thread.join();
    }
    // The thread looks at the run flag after each wait: none is to be longer than half a second. Its socket is there
    // before the thread waits for the first time.
    void ExpectEndAfterAWait()
    {
        EXPECT_TRUE(WaitFor([this] { return !m_waits->PollsMs().empty(); }));
        End();
        EXPECT_EQ(m_waits->PollsMs(), (std::set<int> { 500 }));
        EXPECT_TRUE(m_waits->AnySleepsMs().empty());
        EXPECT_TRUE(m_bResult);
        EXPECT_FALSE(FileExists(ControlSocketPath(INSTANCE)));
        EXPECT_EQ(CountOf(m_output.Err(), "process_request_thread: exiting\n"), 1U);
    }

    std::optional<ShortWaits> m_waits;
    CapturedOutput m_output;
    TempRoot m_root;
    PlainWord<int32_t> m_running { 1 };
    ControlContext m_context { m_running };
    std::thread m_thread;
    bool m_bResult = false;
};

TEST_F(ControlThreadTest, AClearedRunFlagEndsTheThreadWhileNobodyIsConnected)
{
    Run();
    ASSERT_TRUE(WaitFor([] { return FileExists(ControlSocketPath(INSTANCE)); }));
    ExpectEndAfterAWait();
}

TEST_F(ControlThreadTest, AClearedRunFlagEndsTheThreadWhileAClientStaysConnected)
{
    Run();
    Client client;
    EXPECT_EQ(client.Ask("TxStatClear"), "OK: Tx Stat Reset");
    ExpectEndAfterAWait();
}

TEST_F(ControlThreadTest, AClientIsAnsweredRequestByRequestAndTheNextOneAfterIt)
{
    Run();
    {
        Client first;
        EXPECT_EQ(first.Ask("RxStatClear"), "OK: Rx Stat Reset");
        Client second;
        second.Send("StatClear");
        EXPECT_EQ(first.Ask("List\n"), "command not implemented");
        EXPECT_FALSE(second.HasReply(0)) << "one client at a time";
        first.Close();
        EXPECT_EQ(second.Reply(), "OK: Stat Reset");
    }
    Client third;
    EXPECT_EQ(third.Ask("TxStatClear"), "OK: Tx Stat Reset");
}

TEST_F(ControlThreadTest, AClientWithADescriptorFrom1024OnIsServedLikeAnyOther)
{
    const NoLowDescriptor taken;
    Run();
    Client client;
    EXPECT_EQ(client.Ask("StatClear"), "OK: Stat Reset");
    EXPECT_EQ(client.Ask("RxStatClear"), "OK: Rx Stat Reset");
    ExpectEndAfterAWait();
}

TEST_F(ControlThreadTest, DebugAndAnEmptyListSendNothingBack)
{
    Run();
    Client client;
    for (const char* request : { "Debug", "List" }) {
        client.Send(request);
        client.WaitUntilRead();
    }
    EXPECT_EQ(client.Ask("StatClear"), "OK: Stat Reset");
    EXPECT_FALSE(client.HasReply(0));
    End();
    EXPECT_EQ(CountOf(m_output.Err(), "m_bRunning 0\n"), 1U);
}

TEST_F(ControlThreadTest, AWaitWithoutDataRepeatsNoCommand)
{
    Run();
    Client client;
    EXPECT_EQ(client.Ask("Add 256.1.1.1"), "OK: Adding: 256.1.1.1");
    EXPECT_FALSE(client.HasReply(50)); // many waits for data, each cut to a millisecond
    client.Close();
    End();
    EXPECT_EQ(CountOf(m_output.Err(), "unknown host '256.1.1.1'\n"), 1U);
}

// Closing with an unread reply makes the next read fail instead of reporting the end.
TEST_F(ControlThreadTest, AFailedReadCarriesOutTheLastRequestOnceMore)
{
    Run();
    Client client;
    client.Send("Add 256.1.1.1");
    EXPECT_TRUE(client.HasReply());
    client.Close();
    Client next;
    EXPECT_EQ(next.Ask("StatClear"), "OK: Stat Reset");
    End();
    EXPECT_EQ(CountOf(m_output.Err(), "unknown host '256.1.1.1'\n"), 2U);
}

TEST_F(ControlThreadTest, AClientThatIsGoneBeforeItsReplyDoesNoHarm)
{
    Run();
    for (int i = 0; i < 5; ++i) {
        Client client;
        client.Send("AllStats");
        client.Close();
    }
    Client client;
    EXPECT_EQ(client.Ask("StatClear"), "OK: Stat Reset");
}

TEST_F(ControlThreadTest, ARequestIsReadUpTo1024Bytes)
{
    Run();
    Client client;
    EXPECT_EQ(client.Ask(std::string(1024, ' ')), "command not implemented");
    EXPECT_EQ(client.Ask("Add " + std::string(1020, '1')), "OK: Adding: " + std::string(1020, '1'));
    // What goes beyond is the next request.
    const std::string replies = "command not implementedOK: Stat Reset";
    client.Send(std::string(1024, 'x') + "StatClear");
    EXPECT_EQ(client.RepliesLike(replies), replies);
}

TEST_F(ControlThreadTest, AFileLeftByAnEarlierRunIsReplaced)
{
    WriteFile(ControlSocketPath(INSTANCE), "old");
    Run();
    Client client;
    EXPECT_EQ(client.Ask("StatClear"), "OK: Stat Reset");
}

TEST_F(ControlThreadTest, WhatALinkAtThePathLeadsToIsRemoved)
{
    const std::string target = m_root.Path() + "/target";
    WriteFile(target, "old");
    std::filesystem::create_symlink(target, ControlSocketPath(INSTANCE).c_str());
    Run();
    m_thread.join();
    EXPECT_FALSE(FileExists(target));
    EXPECT_FALSE(m_bResult) << "the link itself still takes the path";
    EXPECT_EQ(CountOf(m_output.Err(), "binding socket: Address already in use\n"), 1U);
}

TEST_F(ControlThreadTest, WithoutTheFolderItReportsEndsAndPollsNothing)
{
    std::filesystem::remove(m_root.Path() + "/dev");
    WriteFile(ImpairmentTogglePath(INSTANCE));
    Run();
    m_thread.join();
    EXPECT_FALSE(m_bResult);
    const std::string& text = m_output.Err();
    const std::string expected
        = "binding socket: No such file or directory\nprocess_request_thread: exiting\n";
    ASSERT_GE(text.size(), expected.size());
    EXPECT_EQ(text.substr(text.size() - expected.size()), expected);
    EXPECT_TRUE(FileExists(ImpairmentTogglePath(INSTANCE)));
}

TEST_F(ControlThreadTest, TheImpairmentFilesArePolledWithAndWithoutAClient)
{
    WriteFile(ImpairmentTogglePath(INSTANCE));
    Run();
    EXPECT_TRUE(WaitFor([] { return !FileExists(ImpairmentTogglePath(INSTANCE)); }));
    EXPECT_TRUE(WaitFor([this] { return m_replicator->m_impair.m_mode == 1; }));
    Client client;
    EXPECT_EQ(client.Ask("StatClear"), "OK: Stat Reset");
    WriteFile(ImpairmentTogglePath(INSTANCE));
    EXPECT_TRUE(WaitFor([this] { return m_replicator->m_impair.m_mode == 0; }));
    EXPECT_EQ(client.Ask("StatClear"), "OK: Stat Reset");
    End();
    EXPECT_EQ(CountOf(m_output.Err(), "Impairment ON\n"), 1U);
    EXPECT_EQ(CountOf(m_output.Err(), "Impairment OFF\n"), 1U);
}

TEST_F(ControlThreadTest, WithTheStatusFlagTheStatusSocketIsOpenedFirst)
{
    m_context.statusFlag = 1;
    Run();
    Client client;
    EXPECT_EQ(client.Ask("StatClear"), "OK: Stat Reset");
    End();
    EXPECT_EQ(CountOf(m_output.Err(), "Created ARQ TX Status Socket\n"), 1U);
    EXPECT_EQ(m_context.statusFlag, 1);
    const UniqueFd statusSocket(m_context.statusSocket);
    EXPECT_TRUE(statusSocket.IsValid());
}

} // namespace
