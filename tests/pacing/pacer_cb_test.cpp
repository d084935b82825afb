#include "pacing/pacer_cb.h"

#include <deque>
#include <memory>
#include <optional>

#include <gtest/gtest.h>

#include "support/replicator_fixture.h"

namespace {

using namespace test_support;

class PacerCBTest : public ReplicatorTest {
protected:
    // A pacer, not started, to which so many packets too many were submitted.
    std::unique_ptr<PacerCB> WithOverflows(int count)
    {
        auto callback = std::make_unique<PacerCB>(m_replicator.get());
        bool ok = true;
        callback->m_pPacer = std::make_unique<CPacer>(ok, callback.get(), 10);
        for (int i = 0; i < CPacer::QUEUE_CAPACITY + count; ++i) {
            PacketBuffer& packet = m_packets.emplace_back();
            packet.partCount = 1;
            EXPECT_TRUE(callback->m_pPacer->Submit(&packet));
        }
        return callback;
    }

    std::deque<PacketBuffer> m_packets;
};

TEST_F(PacerCBTest, ThreeOverflowsAreReportedWhenItIsDestroyed)
{
    {
        const CapturedOutput output;
        (void)BuildStopped();
    }
    CapturedOutput output;
    {
        auto callback = WithOverflows(3);
    }
    EXPECT_EQ(output.Out(), "CPacer::SetPacingRate m_ulQuotaBytes 12500\nPacer OverFlows 3\n");
}

TEST_F(PacerCBTest, WithoutOverflowsOrWithoutAPacerNothingIsReported)
{
    CapturedOutput output;
    {
        const auto callback = WithOverflows(0);
        const PacerCB withoutPacer(nullptr);
    }
    EXPECT_EQ(output.Out(), "CPacer::SetPacingRate m_ulQuotaBytes 12500\n");
}

// With a replicator that sends to one receiver.
class PacerCBSending : public ReplicatorTest {
protected:
    PacerCBSending()
    {
        m_settings.destAddress = "127.0.0.2";
        m_callback.emplace(&Build());
    }

    const CapturedOutput m_output;
    Receiver m_receiver { "127.0.0.2", m_pingLease.Port() };
    std::optional<PacerCB> m_callback;
};

TEST_F(PacerCBSending, APacketGoesToTheReplicatorsFanOut)
{
    OwnedPacket packet(RtpPacket(9));
    EXPECT_TRUE(m_callback->Send(packet.Get()));
    EXPECT_EQ(RtpSeq(m_receiver.Next()), 9);
}

TEST_F(PacerCBSending, ThePacketsOfOneTickGoToTheReplicatorsFanOutInTheirOrder)
{
    OwnedPacket first(RtpPacket(9));
    OwnedPacket second(RtpPacket(10));
    OwnedPacket third(RtpPacket(11));
    PacketBuffer* const packets[] = { first.Get(), second.Get(), third.Get() };
    m_callback->SendTogether(packets, 3);
    for (const int seq : { 9, 10, 11 })
        EXPECT_EQ(RtpSeq(m_receiver.Next()), seq);
}

} // namespace
