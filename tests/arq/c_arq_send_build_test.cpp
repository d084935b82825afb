// Packets whose RTP header the engine builds.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "arq/media_header.h"
#include "support/engine_fixture.h"

using test_support::Bytes;
using test_support::BytesOf;
using test_support::Concat;
using test_support::EngineTest;
using test_support::Payload;

namespace {

// An engine with header building and a ring of 4.
class ArqBuildTest : public EngineTest {
protected:
    ArqBuildTest() { MakeEngine({ .ringSize = 4, .headerBuilding = true }); }

    PacketBuffer* Build(uint16_t seq)
    {
        return m_pEngine->BuildAndStore(m_payload.data(), static_cast<int32_t>(m_payload.size()), seq);
    }

    Bytes m_payload = Payload(100);
};

TEST_F(ArqBuildTest, BuildAndStorePutsTheHeaderBeforeThePayload)
{
    m_clock.Set(0xA1B2C3D4);
    Bytes payload = Payload(1316);
    PacketBuffer* record = m_pEngine->BuildAndStore(payload.data(), 1316, 0x1234);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->partCount, 2U);
    EXPECT_EQ(record->partLengths[0], 12);
    EXPECT_EQ(record->partLengths[1], 1316);
    EXPECT_EQ(record->parts[1], payload.data());
    Bytes expected { 0x80, 0x21, 0x12, 0x34, 0xA1, 0xB2, 0xC3, 0xD4, 0, 0, 0, 0 };
    const uint32_t ssrc = m_pEngine->Ssrc(); // as this machine stores it
    std::memcpy(&expected[8], &ssrc, sizeof(ssrc));
    EXPECT_EQ(BytesOf(*record), Concat({ expected, payload }));
    EXPECT_EQ(m_callback.Count(), 0U); // the caller sends it
}

TEST_F(ArqBuildTest, ABuiltRecordIsReusedAfterNPacketsWithAFreshHeader)
{
    PacketBuffer* first = Build(1);
    for (uint16_t seq = 2; seq <= 4; ++seq)
        EXPECT_NE(Build(seq), first);
    EXPECT_EQ(m_pEngine->BuildAndStore(m_payload.data(), 5, 5), first);
    EXPECT_EQ(HeaderOf(*first).seq.Get(), 5);
    EXPECT_EQ(first->TotalLength(), 17);
}

TEST_F(ArqBuildTest, BuildAndStoreIsRefusedWithoutHeaderBuilding)
{
    MakeEngine();
    Bytes payload = Payload(10);
    EXPECT_EQ(m_pEngine->BuildAndStore(payload.data(), 10, 1), nullptr);
    EXPECT_EQ(Ask({ 1 }), 1U);
    EXPECT_EQ(Stats().notInBuffer, 1U);
}

// Part by part, as a reader of the record finds it when the clock is asked for the header's timestamp.
TEST_F(ArqBuildTest, TheRecordIsFilledBeforeTheHeader)
{
    Bytes older = Payload(10);
    Bytes newer = Payload(20);
    PacketBuffer* record = m_pEngine->BuildAndStore(older.data(), 10, 1);
    record->partCount = 0;
    record->parts[0] = nullptr;
    record->partLengths[0] = 0;
    bool isComplete = false;
    m_clock.AtNextReading([&] {
        isComplete = record->partCount == 2U && record->parts[0] != nullptr && record->partLengths[0] == 12
            && record->parts[1] == newer.data() && record->partLengths[1] == 20;
    });
    EXPECT_EQ(m_pEngine->BuildAndStore(newer.data(), 20, 5), record);
    EXPECT_TRUE(isComplete);
}

} // namespace
