#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "replicator/arq_send_replicator.h"
#include "support/captured_output.h"
#include "support/loopback.h"
#include "support/recording_engine.h"
#include "support/small_rings.h"
#include "support/system_hooks.h"

namespace test_support {

inline int32_t CountOfStreams(const ArqSendReplicator& replicator)
{
    const StreamTable::View view(replicator.Streams());
    return view.Count();
}

// Entry `index`. It outlives the view: nothing that was removed is destroyed while the test itself looks.
inline MyArqSendCB& StreamOf(const ArqSendReplicator& replicator, int32_t index)
{
    const StreamTable::View view(replicator.Streams());
    return view.At(index);
}

// A replicator on ports of its own, with small rings.
class ReplicatorTest : public testing::Test {
protected:
    ReplicatorTest()
    {
        m_settings.destPort = m_pingLease.Port();
        m_settings.arqRequestPort = m_requestLease.Port();
    }
    ~ReplicatorTest() override
    {
        const ShortWaits waits; // a replicator takes most of a second to end
        m_replicator.reset();
    }

    // Builds it and waits until both of its ports are open.
    ArqSendReplicator& Build()
    {
        bool ok = false;
        m_replicator = std::make_unique<ArqSendReplicator>(ok, m_settings);
        EXPECT_TRUE(ok);
        EXPECT_TRUE(WaitFor([this] { return IsBoundOnAllAddresses(m_replicator->DestPort()); }));
        EXPECT_TRUE(WaitFor([this] { return IsBoundOnAllAddresses(m_settings.arqRequestPort); }));
        return *m_replicator;
    }

    // Builds it and ends its threads: what they would call is the test's to call.
    ArqSendReplicator& BuildStopped()
    {
        const ShortWaits waits;
        ArqSendReplicator& replicator = Build();
        replicator.Stop();
        return replicator;
    }

    MyArqSendCB& Stream(int32_t index) { return StreamOf(*m_replicator, index); }

    std::string List()
    {
        char text[1024] = "";
        (void)m_replicator->ListStreams(text, sizeof(text));
        return text;
    }

    int Send(OwnedPacket& packet) { return m_replicator->SendPacket(packet.Get()); }

    SmallRings m_rings;
    PortLease m_pingLease;
    PortLease m_requestLease;
    ArqSendReplicator::Settings m_settings;
    std::unique_ptr<ArqSendReplicator> m_replicator;
};

} // namespace test_support
