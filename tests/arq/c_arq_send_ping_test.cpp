// Pings on the request port, and what is too short for anything else.
#include <gtest/gtest.h>

#include <cstdint>

#include "support/engine_fixture.h"

using test_support::Bytes;
using test_support::EngineTest;
using test_support::TestPacket;

namespace {

class ArqPingTest : public EngineTest {};

TEST_F(ArqPingTest, AnEightByteArqPingComesBackByteForByte)
{
    const Bytes ping { 0x00, 0x00, 0xAD, 0xE2, 0xDE, 0xAD, 0x00, 0xFF };
    TestPacket packet(ping);
    EXPECT_EQ(m_pEngine->ProcessBuffer(packet.Get()), 1U);
    ASSERT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(m_callback.Sent()[0], ping);
    EXPECT_EQ(m_callback.Pointers()[0], packet.Get()); // the very same record
}

TEST_F(ArqPingTest, PingsOfFourToNineBytesAreEchoed)
{
    Bytes ping { 0x00, 0x00, 0xAD, 0xE2 };
    for (uint8_t extra = 0; extra <= 5; ++extra) {
        m_callback.Forget();
        EXPECT_EQ(Process(ping), 1U);
        ASSERT_EQ(m_callback.Count(), 1U) << ping.size();
        EXPECT_EQ(m_callback.Sent()[0], ping);
        ping.push_back(extra);
    }
    m_callback.Forget();
    EXPECT_EQ(Process(ping), 0U); // ten bytes are a request, and this one's checksum is wrong
    EXPECT_EQ(m_callback.Count(), 0U);
}

TEST_F(ArqPingTest, AnEchoThatTheSocketRefusesStillCountsAsHandled)
{
    m_callback.SetResult(0);
    EXPECT_EQ(Process({ 0x00, 0x00, 0xAD, 0xE2 }), 1U);
}

TEST_F(ArqPingTest, AWrongPingIdIsReportedAndNothingIsSent)
{
    testing::internal::CaptureStderr();
    const uint32_t result = Process({ 0x00, 0x00, 0xE2, 0xAD, 1, 2, 3, 4 });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "CArqSend: ProcessBuffer: BAD ARQ_PING_ID\n");
    EXPECT_EQ(result, 0U);
    EXPECT_EQ(m_callback.Count(), 0U);
}

TEST_F(ArqPingTest, ShortPacketsWithANonZeroFirstWordAreIgnoredSilently)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(Process({ 0x01, 0x00, 0xAD, 0xE2 }), 1U);
    EXPECT_EQ(Process({ 0x00, 0x80, 0xAD, 0xE2, 0, 0, 0, 0, 0 }), 1U);
    EXPECT_EQ(Process({ 0xBA, 0xBE, 0xFA, 0xCE, 0, 0, 0, 0 }), 1U); // a tag with ID 0 and nothing behind
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(m_callback.Count(), 0U);
}

TEST_F(ArqPingTest, AShortPacketOfOtherThanOnePartIsIgnoredSilently)
{
    for (const uint32_t parts : { 0U, 2U, 3U, 4U }) {
        TestPacket packet(Bytes { 0x00, 0x00, 0xAD, 0xE2 });
        packet->partCount = parts;
        for (uint32_t i = 1; i < PacketBuffer::MAX_PARTS; ++i) {
            packet->parts[i] = packet.Data() + 4;
            packet->partLengths[i] = 1;
        }
        testing::internal::CaptureStderr();
        EXPECT_EQ(m_pEngine->ProcessBuffer(packet.Get()), 1U) << parts << " parts";
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(m_callback.Count(), 0U) << parts << " parts";
    }
}

} // namespace
