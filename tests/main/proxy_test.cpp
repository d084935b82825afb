#include "main/proxy.h"

#include <cstdint>
#include <future>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "main/proxy_run.h"

namespace {

using namespace test_support;

class ProxyTest : public ProxyRunTest {
protected:
    // Delivers three packets, ends the run and looks for what it may have left behind.
    void DeliverAndEnd(const std::vector<std::string>& options)
    {
        std::future<int> run = Start(options);
        EXPECT_FALSE(IsLockFree());
        for (const uint16_t seq : std::initializer_list<uint16_t> { 1, 2, 3 })
            Deliver(seq);
        End(run);
        EXPECT_TRUE(IsLockFree());
        EXPECT_FALSE(FileExists(ControlSocketPath(m_instance)));
        EXPECT_FALSE(IsBoundOnAllAddresses(m_inputLease.Port()));
        EXPECT_FALSE(IsBoundOnAllAddresses(m_pingLease.Port()));
        EXPECT_FALSE(IsBoundOnAllAddresses(m_requestLease.Port()));
        EXPECT_EQ(CountOf(m_output.Err(), "process_request_thread: exiting\n"), 1U);
    }
};

TEST_F(ProxyTest, AClearedRunFlagEndsADirectRunWithStatus0AndNothingIsLeft)
{
    DeliverAndEnd({});
    EXPECT_EQ(m_output.Err().find("Pacing bit rate"), std::string::npos);
    EXPECT_EQ(m_context->startTime, 0);
    EXPECT_EQ(m_context->instanceCopy, m_instance);
}

TEST_F(ProxyTest, AClearedRunFlagEndsAPacedRunWithStatus0AndNothingIsLeft)
{
    DeliverAndEnd({ "-X", "10000000" });
    EXPECT_EQ(CountOf(m_output.Err(), "Pacing bit rate 10000000\n"), 1U);
    EXPECT_NE(m_output.Out().find("PeriodicTimer::Start 10\n"), std::string::npos);
    EXPECT_EQ(m_output.Out().find("Pacer OverFlows"), std::string::npos);
}

} // namespace
