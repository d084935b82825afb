#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "arq/arq_settings.h"
#include "base/unique_fd.h"
#include "main/instance_lock.h"
#include "main/proxy.h"
#include "main/proxy_context.h"
#include "support/captured_output.h"
#include "support/loopback.h"
#include "support/system_hooks.h"
#include "support/temp_root.h"

namespace test_support {

// An instance number that no other test process uses while this object lives, kept with the same lock files as
// the system tests keep theirs. Its lock port lies below the ports that the system gives to anyone.
class InstanceLease {
public:
    InstanceLease()
    {
        const auto folder = std::filesystem::temp_directory_path() / "tx_proxy_test_instances";
        std::filesystem::create_directories(folder);
        for (int32_t i = 0; i < COUNT && m_instance == 0; ++i) {
            const int32_t instance = FIRST + (getpid() + i) % COUNT;
            const auto path = folder / (std::to_string(instance) + ".lock");
            m_file.Reset(open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
            if (flock(m_file.Get(), LOCK_EX | LOCK_NB) == 0 && IsLockFree(instance))
                m_instance = instance;
        }
        EXPECT_NE(m_instance, 0);
    }

    int32_t Instance() const { return m_instance; }

    static bool IsLockFree(int32_t instance)
    {
        const UniqueFd probe(socket(AF_INET, SOCK_DGRAM, 0));
        return Bind(probe.Get(), "0.0.0.0", InstanceLock::Port(instance));
    }

private:
    static constexpr int32_t FIRST = 561; // the system tests use those before
    static constexpr int32_t COUNT = 80;

    UniqueFd m_file;
    int32_t m_instance = 0;
};

// Whole runs, from the command line to the exit status, each on its own instance number and ports and with one
// receiver.
class ProxyRunTest : public testing::Test {
protected:
    ~ProxyRunTest() override { g_nArqBufferCount = m_nSavedBufferCount; }

    // A proxy with these options besides its own ports and instance, in a new context.
    void Prepare(const std::vector<std::string>& options)
    {
        m_proxy.reset();
        m_context.emplace();
        while (m_receiver.HasDatagram()) // the last one of the run before
            (void)m_receiver.Next();
        m_arguments = { "tx_proxy", "-I", std::to_string(m_instance), "-p", Text(m_pingLease), "-r",
            Text(m_requestLease), "-q", "64", "-a", "127.0.0.2" };
        m_arguments.insert(m_arguments.end(), options.begin(), options.end());
        m_arguments.push_back(Text(m_inputLease));
        m_argv.clear();
        for (std::string& argument : m_arguments)
            m_argv.push_back(argument.data());
        m_argv.push_back(nullptr);
        m_proxy = std::make_unique<Proxy>(*m_context, static_cast<int>(m_arguments.size()), m_argv.data());
    }
    static std::string Text(const PortLease& lease) { return std::to_string(lease.Port()); }

    using Around = std::function<int(Proxy&)>;

    // Runs the prepared proxy on another thread, inside `around`.
    std::future<int> RunOnThread(const Around& around)
    {
        return std::async(std::launch::async, [this, around] { return around(*m_proxy); });
    }
    // The same, and waits until it is up.
    std::future<int> Start(const Around& around = &Proxy::Run)
    {
        std::future<int> run = RunOnThread(around);
        EXPECT_TRUE(WaitFor([this] { return IsUp(); }));
        return run;
    }
    std::future<int> Start(const std::vector<std::string>& options)
    {
        Prepare(options);
        return Start();
    }

    bool IsUp() const { return IsInputUp() && IsControlUp() && IsBoundOnAllAddresses(m_requestLease.Port()); }
    bool IsInputUp() const { return m_context->running && IsBoundOnAllAddresses(m_inputLease.Port()); }
    bool IsControlUp() const { return m_context->running && FileExists(ControlSocketPath(m_instance)); }
    bool IsLockFree() const { return InstanceLease::IsLockFree(m_instance); }

    void SendInput(const Bytes& data) { m_encoder.SendTo("127.0.0.1", m_inputLease.Port(), data); }

    // Sends a packet through the proxy.
    void Deliver(uint16_t seq)
    {
        SendInput(RtpPacket(seq));
        EXPECT_EQ(RtpSeq(m_receiver.Next()), seq);
    }

    // Clears the run flag and sees the run end well; no further datagram is needed.
    void End(std::future<int>& run)
    {
        m_context->running = 0;
        ASSERT_EQ(run.wait_for(std::chrono::milliseconds(LONGEST_WAIT_MS)), std::future_status::ready);
        EXPECT_EQ(run.get(), 0);
    }

    const int32_t m_nSavedBufferCount = g_nArqBufferCount;
    InstanceLease m_instanceLease;
    const int32_t m_instance = m_instanceLease.Instance();
    PortLease m_inputLease;
    PortLease m_pingLease;
    PortLease m_requestLease;
    TempRoot m_root;
    Receiver m_encoder { "127.0.0.3" };
    Receiver m_receiver { "127.0.0.2", m_pingLease.Port() };
    ShortWaits m_waits;
    CapturedOutput m_output;
    std::optional<ProxyContext> m_context;
    std::vector<std::string> m_arguments;
    std::vector<char*> m_argv;
    std::unique_ptr<Proxy> m_proxy;
};

} // namespace test_support
