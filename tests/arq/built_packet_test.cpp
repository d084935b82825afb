#include "arq/built_packet.h"

#include <gtest/gtest.h>

#include <memory>

#include "support/test_packets.h"

using test_support::Bytes;
using test_support::BytesOf;
using test_support::Payload;

namespace {

class BuiltPacketTest : public testing::Test {
protected:
    BuiltPacketTest()
    {
        m_pBuilt->FillRecord(m_payload.data(), 30);
        m_pBuilt->FillHeader(0x1234, 0xA1B2C3D4, 0x11223344);
    }

    Bytes m_payload = Payload(30);
    const std::unique_ptr<BuiltPacket> m_pBuilt = std::make_unique<BuiltPacket>();
};

TEST_F(BuiltPacketTest, IsAnRtpHeaderBeforeThePayload)
{
    const Bytes expected
        = test_support::Concat({ test_support::RtpHeader(0x1234, 0xA1B2C3D4, 0x11223344), m_payload });
    EXPECT_EQ(BytesOf(m_pBuilt->record), expected);
}

TEST_F(BuiltPacketTest, ACopyHasItsOwnHeaderAndTheSamePayload)
{
    const Bytes expected = BytesOf(m_pBuilt->record);
    const ResendCopy copy(*m_pBuilt);
    m_pBuilt->FillHeader(0, 0, 0);
    EXPECT_EQ(BytesOf(copy.record), expected);
    EXPECT_EQ(copy.record.parts[1], m_payload.data());
    EXPECT_EQ(copy.record.TotalLength(), 42);
}

TEST_F(BuiltPacketTest, AWatchTellsOfARebuildSinceItBegan)
{
    const RebuildWatch before(m_pBuilt.get());
    EXPECT_FALSE(before.WasRebuilt());
    m_pBuilt->mark.Begin();
    const RebuildWatch within(m_pBuilt.get());
    EXPECT_TRUE(within.WasRebuilt());
    m_pBuilt->mark.End();
    EXPECT_TRUE(before.WasRebuilt());
    EXPECT_FALSE(RebuildWatch(m_pBuilt.get()).WasRebuilt());
}

TEST(RebuildWatch, OfAPacketThatIsNotRebuiltInPlaceNeverTellsOfARebuild)
{
    const RebuildWatch watch(nullptr);
    EXPECT_EQ(watch.Built(), nullptr);
    EXPECT_FALSE(watch.WasRebuilt());
}

} // namespace
