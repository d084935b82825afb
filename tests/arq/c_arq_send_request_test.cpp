// Which requests are taken, and the window and list that are read from them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>

#include "support/allocation_hooks.h"
#include "support/engine_fixture.h"

using test_support::AllocationCount;
using test_support::AppendHost16;
using test_support::Bytes;
using test_support::CountingCallback;
using test_support::EngineTest;
using test_support::RawRequest;
using test_support::Request;
using test_support::RequestWindow;
using test_support::Seqs;
using test_support::TestPacket;

namespace {

class ArqRequestTest : public EngineTest {};

TEST_F(ArqRequestTest, TenBytesOfZeroCountAndChecksumOnlyUpdateWindowAndMaximumAge)
{
    Store(5);
    Bytes request;
    for (const uint16_t word : std::initializer_list<uint16_t> { 0, 0, 3, 250, 40 })
        AppendHost16(request, word);
    ASSERT_EQ(request.size(), 10U);
    EXPECT_EQ(Process(request), 1U);
    const ArqSendStats stats = Stats();
    EXPECT_EQ(stats.arqRetries, 3U);
    EXPECT_EQ(stats.arqIntervalMs, 250U);
    EXPECT_EQ(stats.arqExtraMs, 40U);
    EXPECT_EQ(m_pEngine->MaxAgeTicks(), ((3U + 1) * 250 + 40) * 90);
    EXPECT_EQ(m_callback.Count(), 0U);
    EXPECT_EQ(stats.notInBuffer, 0U);
    EXPECT_EQ(m_pEngine->NextExpectedRequest(), 0U);
}

TEST_F(ArqRequestTest, AWrongChecksumIsDroppedSilentlyAndTheWindowIsNotTakenOver)
{
    Store(5);
    Bytes request = Request({ 5 }, { 9, 900, 90 });
    request[2] = static_cast<uint8_t>(request[2] + 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Process(request), 0U);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    const ArqSendStats stats = Stats();
    EXPECT_EQ(stats.arqRetries, 2U);
    EXPECT_EQ(stats.arqIntervalMs, 200U);
    EXPECT_EQ(stats.arqExtraMs, 0U);
    EXPECT_EQ(m_pEngine->MaxAgeTicks(), MAX_AGE_TICKS);
    EXPECT_EQ(m_pEngine->NextExpectedRequest(), 0U);
    EXPECT_EQ(m_callback.Count(), 0U);
}

TEST_F(ArqRequestTest, EachWindowWordAloneIsTakenOver)
{
    struct {
        RequestWindow window;
        uint32_t maxAge;
    } const cases[] = {
        { { 3, 200, 0 }, 72000 },
        { { 2, 201, 0 }, 54270 },
        { { 2, 200, 1 }, 54090 },
        { { 2, 200, 0 }, 54000 },
        { { 0, 0, 0 }, 0 },
        { { 65535, 65535, 65535 }, static_cast<uint32_t>((65536ULL * 65535 + 65535) * 90) },
    };
    for (const auto& c : cases) {
        MakeEngine();
        EXPECT_EQ(Ask({}, c.window), 1U);
        const ArqSendStats stats = Stats();
        EXPECT_EQ(stats.arqRetries, c.window.retries);
        EXPECT_EQ(stats.arqIntervalMs, c.window.intervalMs);
        EXPECT_EQ(stats.arqExtraMs, c.window.extraMs);
        EXPECT_EQ(m_pEngine->MaxAgeTicks(), c.maxAge);
    }
}

TEST_F(ArqRequestTest, AnOddListIsAnsweredWhenItsLastByteIsCountedAsItsOwnValue)
{
    Store(5);
    Bytes list;
    AppendHost16(list, 5);
    list.push_back(0x80);
    EXPECT_EQ(Process(RawRequest(1, list)), 1U);
    EXPECT_EQ(SentSeqs(), Seqs { 5 });
}

TEST_F(ArqRequestTest, TheRequestsOwnWindowBoundsTheRequestItself)
{
    MakeEngine({ .bitRate = BYTES_PER_MS });
    StoreAll(1, 10);
    EXPECT_EQ(Ask({ 1, 2, 3, 4, 5 }, { 1, 200, 0 }), 1U); // 200 bytes
    EXPECT_EQ(SentSeqs(), (Seqs { 1, 2 }));
}

TEST_F(ArqRequestTest, ARequestInTwoAdjoiningPartsIsReadAsOne)
{
    Store(5);
    const Bytes request = Request({ 5 });
    TestPacket packet(request);
    packet->partCount = 2;
    packet->partLengths[0] = 10;
    packet->parts[1] = packet.Data() + 10;
    packet->partLengths[1] = 2;
    EXPECT_EQ(m_pEngine->ProcessBuffer(packet.Get()), 1U);
    EXPECT_EQ(SentSeqs(), Seqs { 5 });
}

// As the listeners receive: pool slices with a zeroed tail behind the last one.
class OverStatedCountTest : public ArqRequestTest {
protected:
    static constexpr uint32_t TAIL_BYTES = 131072;

    // The request in the last slice of a pool, the place from which a long list reaches furthest.
    uint32_t ProcessInLastSlice(const Bytes& request)
    {
        const auto pool = PacketBufferPool::create(2, PacketBufferPool::SLICE_BYTES, TAIL_BYTES);
        std::fill_n(pool->get()->Data(), PacketBufferPool::SLICE_BYTES, uint8_t { 0xFF });
        PacketBuffer* packet = pool->get();
        std::fill_n(packet->Data(), PacketBufferPool::SLICE_BYTES, uint8_t { 0 });
        std::copy(request.begin(), request.end(), packet->Data());
        packet->SetLength(static_cast<int32_t>(request.size()));
        return m_pEngine->ProcessBuffer(packet);
    }
};

TEST_F(OverStatedCountTest, TheListIsReadForAsManyEntriesAsTheCountSays)
{
    Store(5);
    Bytes list;
    AppendHost16(list, 5);
    EXPECT_EQ(ProcessInLastSlice(RawRequest(65535, list)), 1U);
    EXPECT_EQ(SentSeqs(), Seqs { 5 });
    EXPECT_EQ(Stats().notInBuffer, 65534U); // number 0, again and again
    EXPECT_EQ(m_pEngine->NextExpectedRequest(), 1U);
}

TEST_F(OverStatedCountTest, TheLongestListBehindAFullDatagramStaysInOwnedMemory)
{
    Bytes list;
    for (size_t i = 0; i < (1536 - 10) / 2; ++i)
        AppendHost16(list, 9);
    ASSERT_EQ(list.size(), 1526U);
    EXPECT_EQ(ProcessInLastSlice(RawRequest(65535, list)), 1U);
    EXPECT_EQ(Stats().notInBuffer, 65535U);
}

TEST_F(OverStatedCountTest, TenBytesWithTheLargestCountStayInOwnedMemory)
{
    EXPECT_EQ(ProcessInLastSlice(RawRequest(65535, {})), 1U);
    EXPECT_EQ(Stats().notInBuffer, 65535U);
}

TEST_F(OverStatedCountTest, ABudgetOverrunCountsTheWholeOverStatedRest)
{
    Store(5);
    Bytes list;
    AppendHost16(list, 5);
    EXPECT_EQ(ProcessInLastSlice(RawRequest(65535, list, { 0, 1, 0 })), 1U);
    EXPECT_EQ(Stats().overBudget, 65535U);
}

TEST_F(OverStatedCountTest, ACountBelowTheListLeavesTheRestUnread)
{
    StoreAll(1, 3);
    Bytes list;
    for (const uint16_t seq : std::initializer_list<uint16_t> { 1, 2, 3 })
        AppendHost16(list, seq);
    EXPECT_EQ(ProcessInLastSlice(RawRequest(2, list)), 1U);
    EXPECT_EQ(SentSeqs(), (Seqs { 1, 2 }));
}

TEST_F(ArqRequestTest, AnsweringAllocatesNothing)
{
    CountingCallback callback;
    MakeEngine({ .callback = &callback });
    StoreAll(1, 20);
    Seqs seqs;
    for (uint16_t seq = 1; seq <= 20; ++seq)
        seqs.push_back(seq);
    TestPacket request(Request(seqs));
    TestPacket ping(Bytes { 0x00, 0x00, 0xAD, 0xE2 });
    const AllocationCount allocations;
    EXPECT_EQ(m_pEngine->ProcessBuffer(request.Get()), 1U);
    EXPECT_EQ(m_pEngine->ProcessBuffer(ping.Get()), 1U);
    EXPECT_EQ(allocations.Count(), 0U);
    EXPECT_EQ(callback.Count(), 21U);
}

} // namespace
