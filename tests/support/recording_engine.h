#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "arq/arq_send.h"
#include "replicator/my_arq_send_cb.h"
#include "support/test_packets.h"

namespace test_support {

// An engine that only tells what it is given.
class RecordingEngine : public ArqSend {
public:
    void StoreSent(PacketBuffer* packet) override
    {
        m_stored.push_back(packet);
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
        m_nWork += m_nWorkOfEach;
        return 1;
    }
    void GetStats(ArqSendStats* out) override { *out = m_stats; }
    void ClearStats() override { m_stats = {}; }
    void ClearRing() override {}
    void SetDebug(uint8_t /*flag*/) override {}
    uint32_t Work() const override { return m_nWork; }
    uint32_t Magic() const override { return ENGINE_MAGIC; }

    std::function<void(PacketBuffer*)> m_onStore;
    std::function<void()> m_onBuild;
    std::vector<PacketBuffer*> m_stored;
    std::vector<uint16_t> m_builtSeqs;
    std::vector<Bytes> m_processed;
    ArqSendStats m_stats {};
    uint32_t m_nWork = 0;
    uint32_t m_nWorkOfEach = 1; // of what is processed

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

} // namespace test_support
