// What reaches an engine and what reaches the network are not the same.
#include <vector>

#include <gtest/gtest.h>

#include "replicator/replicator_fixture.h"

namespace {

using namespace test_support;

class SilenceTest : public ReplicatorTest {
protected:
    // Builds the replicator with one stream, to the receiver, whose engine records.
    RecordingEngine& Start(bool udpInputMode)
    {
        m_settings.destAddress = "127.0.0.2";
        m_settings.udpInputMode = udpInputMode;
        const CapturedOutput output;
        (void)Build();
        return ReplaceEngine(Stream(0));
    }

    void ExpectNothingSent()
    {
        EXPECT_FALSE(m_receiver.HasDatagram());
        EXPECT_EQ(m_replicator->TxStats().m_nTxPackets, 0U);
        EXPECT_EQ(m_replicator->TxStats().m_nTxBytes, 0U);
    }

    Receiver m_receiver { "127.0.0.2", m_pingLease.Port() };
};

TEST_F(SilenceTest, AStreamThatIsNotAliveStoresPacketsAndSendsNone)
{
    RecordingEngine& engine = Start(false);
    std::vector<PacketBuffer*> stored;
    engine.m_onStore = [&](PacketBuffer* packet) { stored.push_back(packet); };
    OwnedPacket packet(RtpPacket(10));
    Stream(0).m_bIsAlive = 0;
    {
        const CapturedOutput output;
        EXPECT_EQ(Send(packet), 1);
    }
    EXPECT_EQ(stored, (std::vector<PacketBuffer*> { packet.Get() }));
    ExpectNothingSent();
    Stream(0).m_bIsAlive = 1;
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(RtpSeq(m_receiver.Next()), 10);
}

TEST_F(SilenceTest, InUdpModeAStreamThatIsNotAliveBuildsPacketsAndSendsNone)
{
    const RecordingEngine& engine = Start(true);
    OwnedPacket packet(Payload(20));
    Stream(0).m_bIsAlive = 0;
    {
        const CapturedOutput output;
        EXPECT_EQ(Send(packet), 1);
        EXPECT_EQ(Send(packet), 1);
    }
    EXPECT_EQ(engine.m_builtSeqs, (std::vector<uint16_t> { 1, 2 }));
    ExpectNothingSent();
    Stream(0).m_bIsAlive = 1;
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(m_receiver.Next(), packet.Data());
}

TEST_F(SilenceTest, SendRawDoesNothingInRtpMode)
{
    const RecordingEngine& engine = Start(false);
    ConfigureImpairment(
        m_replicator->m_impair, { .minDrop = 1, .minDist = 1 }); // the next packet is withheld
    Bytes payload = Payload(20);
    EXPECT_EQ(m_replicator->SendRaw(payload.data(), static_cast<int32_t>(payload.size())), 1);
    EXPECT_EQ(m_replicator->SendRaw(payload.data(), static_cast<int32_t>(payload.size())), 1);
    EXPECT_EQ(engine.m_builtSeqs, std::vector<uint16_t> {});
    EXPECT_EQ(m_replicator->m_nDropPacket, 0);
    EXPECT_EQ(m_replicator->RxStats().m_nRxPackets, 0U);
    ExpectNothingSent();
}

} // namespace
