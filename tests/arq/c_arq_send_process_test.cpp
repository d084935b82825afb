#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <vector>

#include "arq/c_arq_send.h"
#include "arq/wire.h"
#include "support/allocation_hooks.h"
#include "support/fixed_clock.h"
#include "support/recording_callback.h"
#include "support/test_packets.h"

using test_support::AppendHost16;
using test_support::Bytes;
using test_support::CountingCallback;
using test_support::FixedClock;
using test_support::RawRequest;
using test_support::RecordingCallback;
using test_support::Request;
using test_support::RequestWindow;
using test_support::RtpPacket;
using test_support::TestPacket;

namespace {

constexpr uint32_t NOW = 1000000; // ticks at the start of each test
constexpr uint32_t RING_SIZE = 64;
constexpr uint32_t HOLD_OFF = 9000; // ticks
constexpr uint32_t MAX_AGE = 54000; // ticks
constexpr uint32_t BYTES_PER_MS = 8000; // the bit rate at which the budget in bytes is the delay in ms

// A callback that does something while it "sends".
class ActingCallback : public CArqSendCB {
public:
    int SendData(PacketBuffer* packet) override
    {
        m_action(packet);
        return 1;
    }
    std::function<void(PacketBuffer*)> m_action;
};

class ProcessBufferTest : public testing::Test {
protected:
    ProcessBufferTest() { MakeEngine(8000000); }

    // The bit rate in bit/s and the ring of a new engine; forgets everything before.
    void MakeEngine(uint32_t bitRate, uint32_t ringSize = RING_SIZE, CArqSendCB* callback = nullptr)
    {
        bool ok = true;
        m_pEngine
            = new CArqSend(ok, &m_clock, callback ? callback : &m_callback, 2, 200, ringSize, bitRate, false);
        ASSERT_TRUE(ok);
        m_callback.Forget();
    }

    // Sends a packet of `size` bytes in all for the first time, `timestamp` being its time of sending.
    TestPacket& Store(uint16_t seq, uint32_t timestamp = NOW, size_t size = 100)
    {
        m_packets.push_back(test_support::MakePacket(RtpPacket(seq, timestamp, size - 12)));
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

    uint32_t Ask(const std::vector<uint16_t>& seqs, RequestWindow window = {})
    {
        return Process(Request(seqs, window));
    }

    ArqSendStats Stats()
    {
        ArqSendStats stats {};
        m_pEngine->GetStats(&stats);
        return stats;
    }

    std::vector<uint16_t> SentSeqs() const
    {
        std::vector<uint16_t> seqs;
        for (const Bytes& sent : m_callback.Sent())
            seqs.push_back(static_cast<uint16_t>(sent[2] << 8 | sent[3]));
        return seqs;
    }

    FixedClock m_clock { NOW };
    std::vector<std::unique_ptr<TestPacket>> m_packets;
    RecordingCallback m_callback;
    CArqSend* m_pEngine = nullptr; // owned by the callback
};

using Seqs = std::vector<uint16_t>;

// ---- Pings and short datagrams

TEST_F(ProcessBufferTest, AnEightByteArqPingComesBackByteForByte)
{
    const Bytes ping { 0x00, 0x00, 0xAD, 0xE2, 0xDE, 0xAD, 0x00, 0xFF };
    TestPacket packet(ping);
    EXPECT_EQ(m_pEngine->ProcessBuffer(packet.Get()), 1U);
    ASSERT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(m_callback.Sent()[0], ping);
    EXPECT_EQ(m_callback.Pointers()[0], packet.Get()); // the very same record
}

TEST_F(ProcessBufferTest, PingsOfFourToNineBytesAreEchoed)
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

TEST_F(ProcessBufferTest, AnEchoThatTheSocketRefusesStillCountsAsHandled)
{
    m_callback.SetResult(0);
    EXPECT_EQ(Process({ 0x00, 0x00, 0xAD, 0xE2 }), 1U);
}

TEST_F(ProcessBufferTest, AWrongPingIdIsReportedAndNothingIsSent)
{
    testing::internal::CaptureStderr();
    const uint32_t result = Process({ 0x00, 0x00, 0xE2, 0xAD, 1, 2, 3, 4 });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "CArqSend: ProcessBuffer: BAD ARQ_PING_ID\n");
    EXPECT_EQ(result, 0U);
    EXPECT_EQ(m_callback.Count(), 0U);
}

TEST_F(ProcessBufferTest, ShortPacketsWithANonZeroFirstWordAreIgnoredSilently)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(Process({ 0x01, 0x00, 0xAD, 0xE2 }), 1U);
    EXPECT_EQ(Process({ 0x00, 0x80, 0xAD, 0xE2, 0, 0, 0, 0, 0 }), 1U);
    EXPECT_EQ(Process({ 0xBA, 0xBE, 0xFA, 0xCE, 0, 0, 0, 0 }), 1U); // a tag with ID 0 and nothing behind
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(m_callback.Count(), 0U);
}

TEST_F(ProcessBufferTest, AShortPacketOfOtherThanOnePartIsIgnoredSilently)
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

// ---- Checksum and window

TEST_F(ProcessBufferTest, TenBytesOfZeroCountAndChecksumOnlyUpdateWindowAndMaximumAge)
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
    EXPECT_EQ(m_pEngine->MaxAge(), ((3U + 1) * 250 + 40) * 90);
    EXPECT_EQ(m_callback.Count(), 0U);
    EXPECT_EQ(stats.notInBuffer, 0U);
    EXPECT_EQ(m_pEngine->NextExpectedRequest(), 0U);
}

TEST_F(ProcessBufferTest, AWrongChecksumIsDroppedSilentlyAndTheWindowIsNotTakenOver)
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
    EXPECT_EQ(m_pEngine->MaxAge(), MAX_AGE);
    EXPECT_EQ(m_pEngine->NextExpectedRequest(), 0U);
    EXPECT_EQ(m_callback.Count(), 0U);
}

TEST_F(ProcessBufferTest, EachWindowWordAloneIsTakenOver)
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
        MakeEngine(8000000);
        EXPECT_EQ(Ask({}, c.window), 1U);
        const ArqSendStats stats = Stats();
        EXPECT_EQ(stats.arqRetries, c.window.retries);
        EXPECT_EQ(stats.arqIntervalMs, c.window.intervalMs);
        EXPECT_EQ(stats.arqExtraMs, c.window.extraMs);
        EXPECT_EQ(m_pEngine->MaxAge(), c.maxAge);
    }
}

TEST_F(ProcessBufferTest, AnOddListIsAnsweredWhenItsLastByteIsCountedAsItsOwnValue)
{
    Store(5);
    Bytes list;
    AppendHost16(list, 5);
    list.push_back(0x80);
    EXPECT_EQ(Process(RawRequest(1, list)), 1U);
    EXPECT_EQ(SentSeqs(), Seqs { 5 });
}

TEST_F(ProcessBufferTest, TheRequestsOwnWindowBoundsTheRequestItself)
{
    MakeEngine(BYTES_PER_MS);
    StoreAll(1, 10);
    EXPECT_EQ(Ask({ 1, 2, 3, 4, 5 }, { 1, 200, 0 }), 1U); // 200 bytes
    EXPECT_EQ(SentSeqs(), (Seqs { 1, 2 }));
}

TEST_F(ProcessBufferTest, ARequestInTwoAdjoiningPartsIsReadAsOne)
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

// ---- Run statistics

TEST_F(ProcessBufferTest, RunsCountNumbersThatFollowTheOneBefore)
{
    struct {
        const char* name;
        std::vector<Seqs> requests;
        uint32_t longestRun;
        uint32_t nextExpected;
    } const cases[] = {
        { "one number", { { 5 } }, 0, 6 },
        { "number 0 follows the start", { { 0 } }, 1, 1 },
        { "three from 0", { { 0, 1, 2 } }, 3, 3 },
        { "three in a row", { { 5, 6, 7 } }, 2, 8 },
        { "a gap starts again", { { 5, 6, 7, 9, 10 } }, 2, 11 },
        { "the longer of two", { { 5, 6, 20, 21, 22, 23 } }, 3, 24 },
        { "a shorter one later", { { 20, 21, 22, 23, 5, 6 } }, 3, 7 },
        { "backwards", { { 7, 6, 5 } }, 0, 6 },
        { "repeated", { { 5, 5, 5 } }, 0, 6 },
        { "across the wrap", { { 65534, 65535, 0, 1 } }, 3, 2 },
        { "65535 expects 0", { { 65535 } }, 0, 0 },
        { "the next number is known in the next request", { { 5 }, { 6 } }, 1, 7 },
        { "but the run begins again with each request", { { 5, 6, 7 }, { 8 }, { 9 } }, 2, 10 },
    };
    for (const auto& c : cases) {
        MakeEngine(8000000);
        for (const Seqs& seqs : c.requests)
            EXPECT_EQ(Ask(seqs), 1U);
        EXPECT_EQ(Stats().longestRun, c.longestRun) << c.name;
        EXPECT_EQ(m_pEngine->NextExpectedRequest(), c.nextExpected) << c.name;
    }
}

TEST_F(ProcessBufferTest, OnlyClearRingResetsTheNextExpectedRequest)
{
    EXPECT_EQ(Ask({ 5 }), 1U);
    m_pEngine->ClearStats();
    EXPECT_EQ(Ask({ 6 }), 1U);
    EXPECT_EQ(Stats().longestRun, 1U);
    m_pEngine->ClearStats();
    m_pEngine->ClearRing();
    EXPECT_EQ(Ask({ 7 }), 1U);
    EXPECT_EQ(Stats().longestRun, 0U);
}

// ---- Empty and reused slots

TEST_F(ProcessBufferTest, EmptySlotsAreCountedAndTheRequestGoesOn)
{
    Store(5);
    EXPECT_EQ(Ask({ 3, 4, 5, 6 }), 1U);
    EXPECT_EQ(SentSeqs(), Seqs { 5 });
    EXPECT_EQ(Stats().notInBuffer, 3U);
    EXPECT_EQ(Stats().retransmitted, 1U);
}

TEST_F(ProcessBufferTest, ANumberOverwrittenInTheRingSendsAndCountsNothing)
{
    Store(5);
    Store(5 + RING_SIZE);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 0U);
    const ArqSendStats stats = Stats();
    EXPECT_EQ(stats.retransmitted, 0U);
    EXPECT_EQ(stats.notInBuffer, 0U);
    EXPECT_EQ(stats.expired, 0U);
    EXPECT_EQ(stats.overBudget, 0U);
    EXPECT_EQ(Ask({ 5 + RING_SIZE }), 1U); // the newer packet is untouched
    EXPECT_EQ(SentSeqs(), Seqs { 5 + RING_SIZE });
}

TEST_F(ProcessBufferTest, AnOverwrittenNumberDoesNotExpireTheNewerPacket)
{
    Store(5 + RING_SIZE);
    m_clock.Advance(MAX_AGE + 1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(Stats().expired, 0U);
    EXPECT_EQ(Ask({ 5 + RING_SIZE }), 1U);
    EXPECT_EQ(Stats().expired, 1U);
}

TEST_F(ProcessBufferTest, TheSequenceNumberIsThatOfTheHeaderNow)
{
    TestPacket& packet = Store(5);
    packet.Data()[3] = 69; // the buffer behind the slot was reused for number 69
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 0U);
}

// ---- Hold-off

TEST_F(ProcessBufferTest, TwoRequestsWithin100MsYieldOneRetransmission)
{
    Store(5);
    EXPECT_EQ(Ask({ 5 }), 1U);
    m_clock.Advance(HOLD_OFF - 1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
    const ArqSendStats stats = Stats();
    EXPECT_EQ(stats.retransmitted, 1U);
    EXPECT_EQ(stats.notInBuffer + stats.overBudget + stats.expired, 0U);
    m_clock.Advance(1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 2U);
    EXPECT_EQ(Stats().retransmitted, 2U);
}

TEST_F(ProcessBufferTest, ANumberListedTwiceIsSentOnce)
{
    Store(5);
    EXPECT_EQ(Ask({ 5, 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
}

TEST_F(ProcessBufferTest, EachResendHoldsOffTheNext)
{
    Store(5);
    for (uint32_t i = 1; i <= 5; ++i) {
        EXPECT_EQ(Ask({ 5 }), 1U);
        EXPECT_EQ(Ask({ 5 }), 1U);
        EXPECT_EQ(m_callback.Count(), i);
        m_clock.Advance(HOLD_OFF);
    }
}

TEST_F(ProcessBufferTest, TheHoldOffIsTheSameWhateverWindowTheReceiverSends)
{
    for (const RequestWindow window : { RequestWindow { 5, 1000, 0 }, RequestWindow { 5, 1, 30000 } }) {
        MakeEngine(8000000);
        m_clock.Set(NOW);
        Store(5);
        EXPECT_EQ(Ask({ 5 }, window), 1U);
        EXPECT_EQ(m_pEngine->HoldOff(), HOLD_OFF);
        m_clock.Advance(HOLD_OFF - 1);
        EXPECT_EQ(Ask({ 5 }, window), 1U);
        EXPECT_EQ(m_callback.Count(), 1U);
        m_clock.Advance(1);
        EXPECT_EQ(Ask({ 5 }, window), 1U);
        EXPECT_EQ(m_callback.Count(), 2U);
    }
}

TEST_F(ProcessBufferTest, TheHoldOffHoldsAcrossTheWrapOfTheClock)
{
    const uint32_t nearWrap = 0xFFFFFFFF - 100;
    m_clock.Set(nearWrap);
    Store(5, nearWrap);
    EXPECT_EQ(Ask({ 5 }), 1U);
    m_clock.Advance(HOLD_OFF - 1); // the clock has wrapped
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
    m_clock.Advance(1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 2U);
}

// A fresh slot's "not before" is 0, which lies ahead for half of all clock readings.
TEST_F(ProcessBufferTest, TheFirstResendIsNeverHeldOff)
{
    for (const uint32_t now : { 0U, 1U, 0x7FFFFFFFU, 0x80000000U, 0x80000001U, 0xFFFFFFFFU }) {
        MakeEngine(8000000);
        m_clock.Set(now);
        Store(5, now);
        EXPECT_EQ(Ask({ 5 }), 1U);
        EXPECT_EQ(m_callback.Count(), 1U) << now;
    }
}

TEST_F(ProcessBufferTest, TheHoldOffIsCountedFromTheEndOfTheSending)
{
    ActingCallback callback;
    int sent = 0;
    callback.m_action = [&](PacketBuffer* /*packet*/) {
        ++sent;
        m_clock.Advance(500);
    };
    MakeEngine(8000000, RING_SIZE, &callback);
    Store(5);
    EXPECT_EQ(Ask({ 5 }), 1U);
    m_clock.Set(NOW + 500 + HOLD_OFF - 1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(sent, 1);
    m_clock.Set(NOW + 500 + HOLD_OFF);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(sent, 2);
}

TEST_F(ProcessBufferTest, ARefusedSendCountsAsRetransmittedAndHoldsOff)
{
    m_callback.SetResult(0);
    Store(5);
    EXPECT_EQ(Ask({ 5, 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(Stats().retransmitted, 1U);
}

// ---- Age

TEST_F(ProcessBufferTest, APacketSent700MsAgoIsExpiredItsSlotEmptiedAndCounted)
{
    Store(5);
    m_clock.Advance(700 * 90);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 0U);
    EXPECT_EQ(Stats().expired, 1U);
    EXPECT_EQ(Stats().notInBuffer, 0U);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(Stats().expired, 1U);
    EXPECT_EQ(Stats().notInBuffer, 1U);
}

TEST_F(ProcessBufferTest, APacketExpiresAtExactlyTheMaximumAge)
{
    struct {
        uint32_t age;
        bool isSent;
    } const cases[] = { { 0, true }, { MAX_AGE - 1, true }, { MAX_AGE, false }, { MAX_AGE + 1, false } };
    for (const uint32_t sentAt : { NOW, 0U, 0xFFFFFFFFU - 1000, 0x7FFFFFF0U }) {
        for (const auto& c : cases) {
            MakeEngine(8000000);
            m_clock.Set(sentAt + c.age);
            Store(5, sentAt);
            EXPECT_EQ(Ask({ 5 }), 1U);
            EXPECT_EQ(m_callback.Count(), c.isSent ? 1U : 0U) << c.age << " after " << sentAt;
            EXPECT_EQ(Stats().expired, c.isSent ? 0U : 1U) << c.age << " after " << sentAt;
        }
    }
}

TEST_F(ProcessBufferTest, ATimestampAheadOfTheClockIsNotExpired)
{
    Store(5, NOW + 1000);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
}

TEST_F(ProcessBufferTest, TheMaximumAgeFollowsTheWindow)
{
    Store(5);
    Store(6);
    m_clock.Advance(MAX_AGE);
    EXPECT_EQ(Ask({ 5 }, { 3, 200, 0 }), 1U); // 800 ms
    EXPECT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(Ask({ 6 }, { 1, 200, 0 }), 1U); // 400 ms
    EXPECT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(Stats().expired, 1U);
}

TEST_F(ProcessBufferTest, AWindowOfZeroExpiresEverything)
{
    Store(5);
    EXPECT_EQ(Ask({ 5 }, { 0, 0, 0 }), 1U);
    EXPECT_EQ(m_callback.Count(), 0U);
    EXPECT_EQ(Stats().expired, 1U);
}

TEST_F(ProcessBufferTest, ExpiredNumbersDoNotEndTheRequest)
{
    Store(5, NOW - MAX_AGE);
    Store(6);
    EXPECT_EQ(Ask({ 5, 6 }), 1U);
    EXPECT_EQ(SentSeqs(), Seqs { 6 });
    EXPECT_EQ(Stats().expired, 1U);
}

// The hold-off comes first: a packet that is held off is not looked at for its age.
TEST_F(ProcessBufferTest, AHeldOffPacketIsNotExpired)
{
    Store(5);
    m_clock.Advance(MAX_AGE - 1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
    m_clock.Advance(HOLD_OFF - 1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(Stats().expired, 0U);
    m_clock.Advance(1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(Stats().expired, 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
}

// The stored time is that of StoreSent: what stands in the header later does not count.
TEST_F(ProcessBufferTest, TheAgeIsThatOfTheStoredTimestamp)
{
    TestPacket& packet = Store(5);
    std::fill_n(packet.Data() + 4, 4, uint8_t { 0 });
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
}

// ---- Budget

TEST_F(ProcessBufferTest, ABudgetOfBBytesSendsAtMostFloorOfBByS)
{
    constexpr uint16_t ASKED = 10;
    struct {
        uint16_t budget;
        size_t size;
        uint32_t sent;
    } const cases[] = {
        { 400, 100, 4 },
        { 399, 100, 3 },
        { 401, 100, 4 },
        { 499, 100, 4 },
        { 500, 100, 5 },
        { 99, 100, 0 },
        { 100, 100, 1 },
        { 1000, 100, 10 },
        { 999, 100, 9 },
        { 2656, 1328, 2 },
        { 2655, 1328, 1 },
        { 12, 12, 1 },
    };
    for (const auto& c : cases) {
        MakeEngine(BYTES_PER_MS);
        StoreAll(1, ASKED, c.size);
        EXPECT_EQ(Ask({ 1, 2, 3, 4, 5, 6, 7, 8, 9, 10 }, { 1, c.budget, 0 }), 1U);
        EXPECT_EQ(Stats().retransmitted, c.sent) << c.budget << " / " << c.size;
        EXPECT_EQ(Stats().overBudget, ASKED - c.sent) << c.budget << " / " << c.size;
        EXPECT_EQ(m_callback.Count(), c.sent) << c.budget << " / " << c.size;
    }
}

TEST_F(ProcessBufferTest, EachRequestHasTheWholeBudget)
{
    MakeEngine(BYTES_PER_MS);
    StoreAll(1, 8);
    EXPECT_EQ(Ask({ 1, 2, 3, 4 }, { 1, 400, 0 }), 1U);
    EXPECT_EQ(Ask({ 5, 6, 7, 8 }, { 1, 400, 0 }), 1U);
    EXPECT_EQ(m_callback.Count(), 8U);
    EXPECT_EQ(Stats().overBudget, 0U);
}

TEST_F(ProcessBufferTest, TheExtraDelayAddsToTheBudget)
{
    MakeEngine(BYTES_PER_MS);
    StoreAll(1, 4);
    EXPECT_EQ(Ask({ 1, 2, 3, 4 }, { 1, 100, 100 }), 1U);
    EXPECT_EQ(m_callback.Count(), 2U);
}

// 400 ms at 50 Mbit/s: the product wraps and leaves 352,516 bytes, 265 packets of 1328 bytes.
TEST_F(ProcessBufferTest, TheDefaultBudgetWrapsTo352516Bytes)
{
    constexpr uint16_t ASKED = 300;
    constexpr uint32_t SENT = 265;
    static_assert(352516 / 1328 == SENT);
    MakeEngine(50000000, 512);
    StoreAll(1, ASKED, 1328);
    Seqs seqs;
    for (uint16_t seq = 1; seq <= ASKED; ++seq)
        seqs.push_back(seq);
    EXPECT_EQ(Ask(seqs), 1U);
    EXPECT_EQ(m_callback.Count(), SENT);
    EXPECT_EQ(Stats().retransmitted, SENT);
    EXPECT_EQ(Stats().overBudget, ASKED - SENT);
}

TEST_F(ProcessBufferTest, ABudgetOfZeroSendsNothing)
{
    Store(5);
    EXPECT_EQ(Ask({ 5, 6, 7 }, { 0, 200, 0 }), 1U);
    EXPECT_EQ(m_callback.Count(), 0U);
    EXPECT_EQ(Stats().overBudget, 3U);
}

TEST_F(ProcessBufferTest, TheFirstOverrunEndsTheListEvenIfASmallerPacketWouldFit)
{
    MakeEngine(BYTES_PER_MS);
    Store(1, NOW, 100);
    Store(2, NOW, 400);
    Store(3, NOW, 20);
    EXPECT_EQ(Ask({ 1, 2, 3, 40, 41 }, { 1, 300, 0 }), 1U);
    EXPECT_EQ(SentSeqs(), Seqs { 1 });
    const ArqSendStats stats = Stats();
    EXPECT_EQ(stats.overBudget, 4U); // this number and all that follow
    EXPECT_EQ(stats.notInBuffer, 0U);
}

TEST_F(ProcessBufferTest, NothingIsQueuedForLaterWhenTheBudgetIsSpent)
{
    MakeEngine(BYTES_PER_MS);
    StoreAll(1, 4);
    EXPECT_EQ(Ask({ 1, 2, 3, 4 }, { 1, 200, 0 }), 1U);
    EXPECT_EQ(SentSeqs(), (Seqs { 1, 2 }));
    EXPECT_EQ(Ask({}, { 1, 200, 0 }), 1U);
    EXPECT_EQ(m_callback.Count(), 2U);
    EXPECT_EQ(Ask({ 3, 4 }, { 1, 200, 0 }), 1U); // and neither is held off
    EXPECT_EQ(SentSeqs(), (Seqs { 1, 2, 3, 4 }));
}

TEST_F(ProcessBufferTest, APacketOverTheBudgetKeepsItsPayloadType)
{
    MakeEngine(BYTES_PER_MS);
    TestPacket& packet = Store(1);
    EXPECT_EQ(Ask({ 1 }, { 1, 99, 0 }), 1U);
    EXPECT_EQ(packet.Data()[1], MEDIA_PAYLOAD_TYPE);
}

TEST_F(ProcessBufferTest, RunStatisticsStopWhereTheBudgetEnds)
{
    MakeEngine(BYTES_PER_MS);
    StoreAll(10, 4);
    EXPECT_EQ(Ask({ 10, 11, 12, 13 }, { 1, 200, 0 }), 1U);
    EXPECT_EQ(m_pEngine->NextExpectedRequest(), 13U); // 12 was looked at, 13 was not
    EXPECT_EQ(Stats().longestRun, 2U);
}

TEST_F(ProcessBufferTest, OnlyPacketsPastHoldOffAndAgeCountAgainstTheBudget)
{
    MakeEngine(BYTES_PER_MS);
    const RequestWindow window { 1, 200, 0 }; // 200 bytes, 400 ms
    Store(1);
    EXPECT_EQ(Ask({ 1 }, window), 1U); // held off from now on
    Store(2, NOW - 36000); // expired
    Store(3 + RING_SIZE); // takes the slot of 3
    Store(5);
    Store(6);
    Store(7);
    m_callback.Forget();
    EXPECT_EQ(Ask({ 1, 2, 3, 4, 5, 6, 7 }, window), 1U); // 4 is not in the buffer
    EXPECT_EQ(SentSeqs(), (Seqs { 5, 6 }));
    EXPECT_EQ(Stats().overBudget, 1U);
}

TEST_F(ProcessBufferTest, AllPartsOfAPacketCountAgainstTheBudget)
{
    bool ok = true;
    m_pEngine = new CArqSend(ok, &m_clock, &m_callback, 2, 200, RING_SIZE, BYTES_PER_MS, true);
    Bytes payload(88, 7);
    for (uint16_t seq = 1; seq <= 4; ++seq)
        (void)m_pEngine->BuildAndStore(payload.data(), 88, seq);
    EXPECT_EQ(Ask({ 1, 2, 3, 4 }, { 1, 299, 0 }), 1U); // 100 bytes each, header included
    EXPECT_EQ(m_callback.Count(), 2U);
    EXPECT_EQ(Stats().overBudget, 2U);
}

TEST_F(ProcessBufferTest, ARecordOfZeroOrMoreThanFourPartsHasSizeZero)
{
    for (const uint32_t parts : { 0U, 5U }) {
        MakeEngine(BYTES_PER_MS);
        TestPacket& packet = Store(1);
        packet->partCount = parts;
        EXPECT_EQ(Ask({ 1 }, { 0, 200, 0 }), 1U); // a budget of 0
        EXPECT_EQ(m_callback.Count(), 1U) << parts << " parts";
        EXPECT_EQ(Stats().overBudget, 0U);
    }
}

// ---- Resending

TEST_F(ProcessBufferTest, ARetransmissionHasPayloadType122AndKeepsItsMarker)
{
    struct {
        uint8_t before;
        uint8_t after;
    } const cases[] = { { 0x21, 0x7A }, { 0xA1, 0xFA }, { 0x00, 0x7A }, { 0xFF, 0xFA }, { 0x7A, 0x7A } };
    for (const auto& c : cases) {
        MakeEngine(8000000);
        TestPacket packet(RtpPacket(5, NOW, 100, c.before));
        Bytes expected = packet.Contents();
        expected[1] = c.after;
        m_pEngine->StoreSent(packet.Get());
        EXPECT_EQ(Ask({ 5 }), 1U);
        ASSERT_EQ(m_callback.Count(), 1U);
        EXPECT_EQ(m_callback.Sent()[0], expected); // nothing else is changed
        EXPECT_EQ(packet.Data()[1], c.after); // the stored packet keeps it
        EXPECT_EQ(m_callback.Pointers()[0], packet.Get());
    }
}

TEST_F(ProcessBufferTest, PacketsGoOutInTheReceiversOrder)
{
    StoreAll(1, 5);
    EXPECT_EQ(Ask({ 4, 1, 5, 2 }), 1U);
    EXPECT_EQ(SentSeqs(), (Seqs { 4, 1, 5, 2 }));
    EXPECT_EQ(Stats().retransmitted, 4U);
}

TEST_F(ProcessBufferTest, RequestsAcrossTheWrapOfTheSequenceAreAnswered)
{
    for (const uint16_t seq : std::initializer_list<uint16_t> { 65534, 65535, 0, 1 })
        Store(seq);
    EXPECT_EQ(Ask({ 65534, 65535, 0, 1 }), 1U);
    EXPECT_EQ(SentSeqs(), (Seqs { 65534, 65535, 0, 1 }));
}

// ---- Counts that the datagram does not hold

// As the listeners receive: pool slices with a zeroed tail behind the last one.
class OverStatedCountTest : public ProcessBufferTest {
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

// ---- Cost

TEST_F(ProcessBufferTest, AnsweringAllocatesNothing)
{
    CountingCallback callback;
    MakeEngine(8000000, RING_SIZE, &callback);
    StoreAll(1, 20);
    Seqs seqs;
    for (uint16_t seq = 1; seq <= 20; ++seq)
        seqs.push_back(seq);
    TestPacket request(Request(seqs));
    TestPacket ping(Bytes { 0x00, 0x00, 0xAD, 0xE2 });
    const test_support::AllocationCount allocations;
    EXPECT_EQ(m_pEngine->ProcessBuffer(request.Get()), 1U);
    EXPECT_EQ(m_pEngine->ProcessBuffer(ping.Get()), 1U);
    EXPECT_EQ(allocations.Count(), 0U);
    EXPECT_EQ(callback.Count(), 21U);
}

} // namespace
