#pragma once

#include <functional>
#include <memory>

#include <gtest/gtest.h>

#include "arq/arq_send.h"
#include "arq/arq_settings.h"
#include "replicator/arq_send_replicator.h"
#include "replicator/captured_output.h"
#include "replicator/loopback.h"
#include "support/system_hooks.h"

namespace test_support {

// An engine that only tells what it is given.
class RecordingEngine : public ArqSend {
public:
    void StoreSent(PacketBuffer* packet) override
    {
        if (m_onStore)
            m_onStore(packet);
    }
    PacketBuffer* BuildAndStore(uint8_t* data, int32_t length, uint16_t seq) override
    {
        m_builtSeqs.push_back(seq);
        if (m_onBuild)
            m_onBuild();
        m_record.partCount = 1;
        m_record.parts[0] = data;
        m_record.partLengths[0] = length;
        return &m_record;
    }
    uint32_t ProcessBuffer(PacketBuffer* packet) override
    {
        m_processed.emplace_back(packet->Data(), packet->Data() + packet->Length());
        return 1;
    }
    void GetStats(ArqSendStats* out) override { *out = m_stats; }
    void ClearStats() override { m_stats = {}; }
    void ClearRing() override {}
    void SetDebug(uint8_t /*flag*/) override {}
    uint32_t Magic() const override { return ENGINE_MAGIC; }

    std::function<void(PacketBuffer*)> m_onStore;
    std::function<void()> m_onBuild;
    std::vector<uint16_t> m_builtSeqs;
    std::vector<Bytes> m_processed;
    ArqSendStats m_stats {};

private:
    PacketBuffer m_record {};
};

// Puts a recording engine in the place of the stream's own.
inline RecordingEngine& ReplaceEngine(MyArqSendCB& stream)
{
    auto engine = std::make_unique<RecordingEngine>();
    RecordingEngine& result = *engine;
    stream.m_pEngine = std::move(engine);
    return result;
}

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
        g_nArqBufferCount = RING;
        m_settings.destPort = m_pingLease.Port();
        m_settings.arqRequestPort = m_requestLease.Port();
    }
    ~ReplicatorTest() override
    {
        const ShortWaits waits; // a replicator takes most of a second to end
        m_replicator.reset();
        g_nArqBufferCount = m_nSavedBufferCount;
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

    // A datagram on the ping port, as the listen thread hands it over.
    void Ping(const char* address, uint16_t portNet, uint32_t streamId = 0, const Bytes& data = { 'p' })
    {
        OwnedPacket packet(data);
        EXPECT_EQ(m_replicator->ProcessPing(packet.Get(), Net(address), portNet, streamId), 1);
    }

    // A datagram on the request port, as the listen thread hands it over.
    void HandleRequest(const char* address, uint32_t streamId, const Bytes& data)
    {
        OwnedPacket packet(data);
        EXPECT_EQ(m_replicator->ProcessRequest(packet.Get(), Net(address), htons(9), streamId), 1);
    }

    static constexpr int32_t RING = 64;

    PortLease m_pingLease;
    PortLease m_requestLease;
    ArqSendReplicator::Settings m_settings;
    std::unique_ptr<ArqSendReplicator> m_replicator;

private:
    const int32_t m_nSavedBufferCount = g_nArqBufferCount;
};

} // namespace test_support
