#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include <gtest/gtest.h>

#include "arq/c_arq_send.h"
#include "control/impairment.h"
#include "replicator/default_settings.h"
#include "replicator/fan_out.h"
#include "replicator/my_arq_send_cb.h"
#include "replicator/stream_table.h"
#include "support/captured_output.h"
#include "support/fixed_clock.h"
#include "support/loopback.h"
#include "support/recording_engine.h"
#include "support/small_rings.h"

namespace test_support {

// The packet path over a table that the test fills; no thread but the test's.
class FanOutTest : public testing::Test {
protected:
    enum class Input { Rtp, Udp };

    explicit FanOutTest(Input input = Input::Rtp)
        : m_input(input),
          m_fanOut({ .table = m_table,
              .clock = m_clock,
              .rx = m_rx,
              .impair = m_impair,
              .nDropPacket = m_nDropPacket,
              .bRunning = m_bRunning,
              .udpInputMode = input == Input::Udp })
    {
        m_rx.Reset();
        InitImpairment(m_impair);
    }

    // A living stream with a socket and an engine, which the table does not have yet.
    std::unique_ptr<MyArqSendCB> MakeStream(const char* address, uint16_t port)
    {
        return Finish(std::make_unique<MyArqSendCB>(m_tx, Net(address), port, uint32_t { 0 }));
    }
    std::unique_ptr<MyArqSendCB> Finish(std::unique_ptr<MyArqSendCB> stream)
    {
        bool ok = true;
        // NOLINTNEXTLINE: the engine puts itself into the stream, which owns it from then on.
        (void)new CArqSend(ok, &m_clock, stream.get(), 2, 200, SmallRings::PACKETS,
            DEFAULT_GROSS_MEDIA_BITRATE, m_input == Input::Udp);
        EXPECT_TRUE(ok);
        stream->OpenSocket();
        stream->m_bIsAlive = true;
        return stream;
    }

    MyArqSendCB& Append(std::unique_ptr<MyArqSendCB> stream)
    {
        MyArqSendCB& added = *stream;
        const StreamTable::Lock lock(m_table);
        m_table.Append(std::move(stream));
        return added;
    }
    MyArqSendCB& AddStream(const char* address, uint16_t port) { return Append(MakeStream(address, port)); }
    MyArqSendCB& AddStreamTo(const char* address, const Receiver& receiver)
    {
        return AddStream(address, receiver.Port());
    }
    void Remove(int32_t index)
    {
        const StreamTable::Lock lock(m_table);
        m_table.Remove(index);
    }

    int Send(OwnedPacket& packet) { return m_fanOut.SendPacket(packet.Get()); }
    int SendRaw(Bytes& payload)
    {
        return m_fanOut.SendRaw(payload.data(), static_cast<int32_t>(payload.size()));
    }

    // What the stream's receiver asks for, as it comes to the engine.
    static void AskFor(MyArqSendCB& stream, uint16_t seq)
    {
        OwnedPacket request(Request({ seq }));
        EXPECT_EQ(stream.m_pEngine->ProcessBuffer(request.Get()), 1U);
    }

    // Every packet that meets the gate next is withheld or passed in turn, the first one withheld.
    void WithholdEveryOtherPacket() { ConfigureImpairment(m_impair, { .minDrop = 1, .minDist = 1 }); }

    static constexpr uint32_t NOW = 0x89ABCDEF; // ticks

    const Input m_input;
    FixedClock m_clock { NOW };
    TransmitStats m_tx;
    ReceiveStats m_rx;
    Impairment m_impair;
    PlainWord<int32_t> m_nDropPacket { 0 };
    PlainWord<bool> m_bRunning { true };
    StreamTable m_table;
    FanOut m_fanOut;
};

class UdpFanOutTest : public FanOutTest {
protected:
    UdpFanOutTest() : FanOutTest(Input::Udp) {}
};

} // namespace test_support
