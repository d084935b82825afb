#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "replicator/stream_keeper.h"
#include "support/captured_output.h"
#include "support/fixed_clock.h"
#include "support/loopback.h"
#include "support/small_rings.h"
#include "support/system_hooks.h"

namespace test_support {

constexpr uint16_t PORT_A = 0x3412; // raw 16 bits, as the network delivers them
constexpr uint16_t PORT_B = 0x7856;

// A keeper without threads, listeners and a clock that runs: each step is the test's own.
class StreamKeeperTest : public testing::Test {
protected:
    enum class Ports { Own, Shared };

    explicit StreamKeeperTest(Ports ports = Ports::Own)
        : m_keeper(m_stats, m_clock,
            { .arqRequestPort = ports == Ports::Shared ? m_lease.Port() : uint16_t { 1 },
                .destPort = m_lease.Port() })
    {
    }

    // A ping that arrived on m_pingSocket.
    void Ping(const char* address, uint16_t portNet, uint32_t streamId = 0, uint32_t nowMs = 0)
    {
        m_keeper.ServePing({ Net(address), portNet, streamId, false }, m_pingSocket.Fd(), nowMs);
    }
    // A message that the receiver leaves.
    void Leave(const char* address, uint32_t streamId = 0)
    {
        m_keeper.ServePing({ Net(address), PORT_B, streamId, true }, m_pingSocket.Fd(), 0);
    }
    void Add(const char* address)
    {
        const CapturedOutput output;
        EXPECT_EQ(m_keeper.AddStream(address, 0), 1);
    }
    void PingQuietly(const char* address, uint16_t portNet, uint32_t streamId = 0, uint32_t nowMs = 0)
    {
        const CapturedOutput output;
        Ping(address, portNet, streamId, nowMs);
    }
    void LeaveQuietly(const char* address, uint32_t streamId = 0)
    {
        const CapturedOutput output;
        Leave(address, streamId);
    }

    int32_t Count() const
    {
        const StreamTable::View view(m_keeper.Table());
        return view.Count();
    }
    // Entry `index`. It outlives the view: only the test itself destroys what was removed.
    MyArqSendCB& Stream(int32_t index) const
    {
        const StreamTable::View view(m_keeper.Table());
        return view.At(index);
    }
    bool Has(uint32_t streamId) const
    {
        const StreamTable::View view(m_keeper.Table());
        return view.Find(0, streamId) != nullptr;
    }
    std::string List()
    {
        char text[1024] = "";
        EXPECT_EQ(m_keeper.ListStreams(text, sizeof(text)), 1);
        return text;
    }

    SmallRings m_rings;
    ShortWaits m_waits; // what a deletion takes is noted, not waited for
    FixedClock m_clock;
    TransmitStats m_stats;
    PortLease m_lease; // where media go
    Receiver m_pingSocket { "127.0.0.1" };
    StreamKeeper m_keeper;
};

} // namespace test_support
