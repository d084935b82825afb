#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "arq/c_arq_send.h"
#include "base/rtp.h"
#include "support/acting_clock.h"
#include "support/recording_callback.h"
#include "support/test_packets.h"

namespace test_support {

using Seqs = std::vector<uint16_t>;

struct EngineOptions {
    uint32_t bitRate = 8000000; // bit/s
    uint32_t ringSize = 64;
    bool headerBuilding = false;
    CArqSendCB* callback = nullptr; // null: the fixture's recorder
};

// An engine with the window that every stream starts with (2 retries, 200 ms), a clock that stands still and
// a recorder of what it sends.
class EngineTest : public testing::Test {
protected:
    static constexpr uint32_t NOW = 1000000; // ticks at the start of each test
    static constexpr uint16_t RING_SIZE = 64;
    static constexpr uint32_t HOLD_OFF_TICKS = 9000;
    static constexpr uint32_t MAX_AGE_TICKS = 54000;
    // The bit rate at which the budget in bytes is the delay in ms.
    static constexpr uint32_t BYTES_PER_MS = 8000;

    EngineTest() { MakeEngine(); }

    // A new engine in place of the one before; forgets what was sent.
    void MakeEngine(const EngineOptions& options = {})
    {
        bool ok = true;
        CArqSendCB* callback = options.callback != nullptr ? options.callback : &m_callback;
        m_pEngine = new CArqSend(
            ok, &m_clock, callback, 2, 200, options.ringSize, options.bitRate, options.headerBuilding);
        EXPECT_TRUE(ok);
        m_callback.Forget();
    }

    // Sends a packet of `size` bytes in all for the first time, `timestamp` being its time of sending.
    TestPacket& Store(uint16_t seq, uint32_t timestamp = NOW, size_t size = 100)
    {
        m_packets.push_back(MakePacket(RtpPacket(seq, timestamp, size - RTP_HEADER_BYTES)));
        m_pEngine->StoreSent(m_packets.back()->Get());
        return *m_packets.back();
    }

    void StoreAll(uint16_t first, uint16_t count, size_t size = 100)
    {
        for (uint16_t i = 0; i < count; ++i)
            Store(static_cast<uint16_t>(first + i), NOW, size);
    }

    uint32_t Process(const Bytes& bytes)
    {
        TestPacket packet(bytes);
        return m_pEngine->ProcessBuffer(packet.Get());
    }

    uint32_t Ask(const Seqs& seqs, RequestWindow window = {}) { return Process(Request(seqs, window)); }

    ArqSendStats Stats()
    {
        ArqSendStats stats {};
        m_pEngine->GetStats(&stats);
        return stats;
    }

    // The sequence numbers of all that was sent, in its order.
    Seqs SentSeqs() const
    {
        Seqs seqs;
        for (const Bytes& sent : m_callback.Sent())
            seqs.push_back(static_cast<uint16_t>(sent[2] << 8 | sent[3]));
        return seqs;
    }

    ActingClock m_clock { NOW };
    std::vector<std::unique_ptr<TestPacket>> m_packets;
    RecordingCallback m_callback;
    CArqSend* m_pEngine = nullptr; // owned by its callback
};

} // namespace test_support
