#include "main/proxy.h"

#include <array>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "arq/arq_settings.h"
#include "control/temp_root.h"
#include "main/proxy_context.h"
#include "replicator/captured_output.h"
#include "replicator/loopback.h"

// A paced run leaves its pacer to the end of the process on purpose; nothing else may be lost.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:Proxy::CreatePacer\n";
}

namespace {

using namespace test_support;

constexpr uint16_t FIRST_LOCK_PORT = 32123;

// Whole runs, from the command line to the exit status.
class ProxyTest : public testing::Test {
protected:
    ProxyTest()
    {
        m_instance = m_lockLease.Port() - FIRST_LOCK_PORT;
        m_lockLease.Release(); // the lock shares its port with nobody
    }
    ~ProxyTest() override { g_nArqBufferCount = m_nSavedBufferCount; }

    // A run with these options besides its own ports and instance.
    std::future<int> Run(const std::vector<std::string>& options)
    {
        m_arguments = { "tx_proxy", "-I", std::to_string(m_instance), "-p", Text(m_pingLease), "-r",
            Text(m_requestLease), "-q", "64", "-a", "127.0.0.2" };
        m_arguments.insert(m_arguments.end(), options.begin(), options.end());
        m_arguments.push_back(Text(m_inputLease));
        for (std::string& argument : m_arguments)
            m_argv.push_back(argument.data());
        m_argv.push_back(nullptr);
        m_proxy = std::make_unique<Proxy>(m_context, static_cast<int>(m_arguments.size()), m_argv.data());
        return std::async(std::launch::async, [this] { return m_proxy->Run(); });
    }
    static std::string Text(const PortLease& lease) { return std::to_string(lease.Port()); }

    bool IsUp() const
    {
        return m_context.running && IsBoundOnAllAddresses(m_inputLease.Port())
            && IsBoundOnAllAddresses(m_requestLease.Port()) && FileExists(ControlSocketPath(m_instance));
    }
    bool IsLockFree() const
    {
        const UniqueFd probe(socket(AF_INET, SOCK_DGRAM, 0));
        return Bind(probe.Get(), "0.0.0.0", static_cast<uint16_t>(FIRST_LOCK_PORT + m_instance));
    }
    void SendInput(uint16_t seq) { m_encoder.SendTo("127.0.0.1", m_inputLease.Port(), RtpPacket(seq)); }

    // Delivers three packets, clears the run flag, sends one more datagram and sees the run end.
    void DeliverAndEnd(std::future<int>& run)
    {
        ASSERT_TRUE(WaitFor([this] { return IsUp(); }));
        EXPECT_FALSE(IsLockFree());
        for (const uint16_t seq : std::array<uint16_t, 3> { 1, 2, 3 }) {
            SendInput(seq);
            EXPECT_EQ(RtpSeq(m_receiver.Next()), seq);
        }
        m_context.running = 0;
        SendInput(4);
        ASSERT_EQ(run.wait_for(std::chrono::milliseconds(LONGEST_WAIT_MS)), std::future_status::ready);
        EXPECT_EQ(run.get(), 0);
        EXPECT_TRUE(IsLockFree());
        EXPECT_FALSE(FileExists(ControlSocketPath(m_instance)));
        EXPECT_FALSE(IsBoundOnAllAddresses(m_inputLease.Port()));
        EXPECT_FALSE(IsBoundOnAllAddresses(m_pingLease.Port()));
        EXPECT_FALSE(IsBoundOnAllAddresses(m_requestLease.Port()));
        EXPECT_EQ(CountOf(m_output.Err(), "process_request_thread: exiting\n"), 1U);
    }

    const int32_t m_nSavedBufferCount = g_nArqBufferCount;
    PortLease m_lockLease;
    PortLease m_inputLease;
    PortLease m_pingLease;
    PortLease m_requestLease;
    int32_t m_instance = 0;
    TempRoot m_root;
    Receiver m_encoder { "127.0.0.3" };
    Receiver m_receiver { "127.0.0.2", m_pingLease.Port() };
    CapturedOutput m_output;
    ProxyContext m_context;
    std::vector<std::string> m_arguments;
    std::vector<char*> m_argv;
    std::unique_ptr<Proxy> m_proxy;
};

TEST_F(ProxyTest, AClearedRunFlagEndsADirectRunWithStatus0AndNothingIsLeft)
{
    std::future<int> run = Run({});
    DeliverAndEnd(run);
    EXPECT_EQ(m_output.Err().find("Pacing bit rate"), std::string::npos);
    EXPECT_EQ(m_context.startTime, 0);
    EXPECT_EQ(m_context.instanceCopy, m_instance);
}

TEST_F(ProxyTest, AClearedRunFlagEndsAPacedRunWithStatus0AndNothingIsLeft)
{
    std::future<int> run = Run({ "-X", "10000000" });
    DeliverAndEnd(run);
    EXPECT_EQ(CountOf(m_output.Err(), "Pacing bit rate 10000000\n"), 1U);
    EXPECT_NE(m_output.Out().find("PeriodicTimer::Start 10\n"), std::string::npos);
    EXPECT_EQ(m_output.Out().find("Pacer OverFlows"), std::string::npos);
}

} // namespace
