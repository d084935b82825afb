// What one request may have sent again is offered to the stream in one go; what did not leave so is sent one by one,
// as if nothing had been offered.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <numeric>
#include <random>
#include <vector>

#include "arq/media_header.h"
#include "arq/request_work.h"
#include "support/engine_fixture.h"

using test_support::Bytes;
using test_support::BytesOf;
using test_support::EngineOptions;
using test_support::EngineTest;
using test_support::RequestWindow;
using test_support::Seqs;

namespace {

// Takes as many of what it is offered as it is told to, and keeps a copy of what has left either way.
class TrainCallback : public CArqSendCB {
public:
    int SendData(PacketBuffer* packet) override
    {
        m_sent.push_back(BytesOf(*packet));
        ++m_nPlain;
        if (m_onPlain)
            m_onPlain();
        return 1;
    }
    int32_t SendAtOnce(PacketBuffer* const* packets, int32_t count) override
    {
        m_offers.push_back(count);
        const int32_t taken = std::min(count, m_nTakes);
        for (int32_t i = 0; i < taken; ++i)
            m_sent.push_back(BytesOf(*packets[i]));
        if (m_onOffer)
            m_onOffer();
        return taken;
    }

    static constexpr int32_t ALL = 1000;
    int32_t m_nTakes = ALL; // of each offer
    std::vector<int32_t> m_offers; // how many packets each had
    std::vector<Bytes> m_sent;
    int m_nPlain = 0;
    std::function<void()> m_onOffer; // after the packets have left
    std::function<void()> m_onPlain;
};

Seqs Row(uint16_t first, uint16_t count)
{
    Seqs seqs(count);
    std::iota(seqs.begin(), seqs.end(), first);
    return seqs;
}

Seqs SeqsOf(const std::vector<Bytes>& datagrams)
{
    Seqs seqs;
    for (const Bytes& datagram : datagrams)
        seqs.push_back(static_cast<uint16_t>(datagram[2] << 8 | datagram[3]));
    return seqs;
}

using Counts = std::vector<int32_t>;

class ArqTogetherTest : public EngineTest {
protected:
    ArqTogetherTest() { MakeTrainEngine(); }

    void MakeTrainEngine(EngineOptions options = {})
    {
        options.callback = &m_train;
        MakeEngine(options);
        m_train.m_offers.clear();
        m_train.m_sent.clear();
        m_train.m_nPlain = 0;
    }
    PacketBuffer* Build(uint16_t seq) { return m_pEngine->BuildAndStore(m_payload.data(), 100, seq); }
    Seqs Sent() const { return SeqsOf(m_train.m_sent); }

    TrainCallback m_train;
    Bytes m_payload = test_support::Payload(100);
};

TEST_F(ArqTogetherTest, ThePacketsOfARequestAreOfferedTogetherInItsOrder)
{
    StoreAll(1, 4);
    EXPECT_EQ(Ask({ 3, 1, 4, 2 }), 1U);
    EXPECT_EQ(m_train.m_offers, Counts { 4 });
    EXPECT_EQ(m_train.m_nPlain, 0);
    EXPECT_EQ(Sent(), (Seqs { 3, 1, 4, 2 }));
    EXPECT_EQ(Stats().retransmitted, 4U);
    for (const Bytes& datagram : m_train.m_sent)
        EXPECT_EQ(datagram[1], 0x7A);
}

TEST_F(ArqTogetherTest, WhatIsNotTakenIsSentOneByOneBehindIt)
{
    constexpr uint16_t COUNT = 5;
    for (uint16_t taken = 0; taken <= COUNT; ++taken) {
        MakeTrainEngine();
        m_train.m_nTakes = taken;
        StoreAll(1, COUNT);
        EXPECT_EQ(Ask(Row(1, COUNT)), 1U);
        EXPECT_EQ(Sent(), Row(1, COUNT)) << taken;
        EXPECT_EQ(m_train.m_offers, Counts { COUNT });
        EXPECT_EQ(m_train.m_nPlain, COUNT - taken);
        EXPECT_EQ(Stats().retransmitted, uint32_t { COUNT });
        EXPECT_EQ(m_pEngine->Work(), COUNT * (1 + SEND_WORK)) << "each is charged once";
    }
}

TEST_F(ArqTogetherTest, WhatIsAloneIsSentWithoutAnOffer)
{
    StoreAll(1, 2);
    EXPECT_EQ(Ask({ 1 }), 1U);
    EXPECT_EQ(Ask({ 10, 2, 11 }), 1U); // the others are not in the ring
    EXPECT_EQ(m_train.m_offers, Counts {});
    EXPECT_EQ(m_train.m_nPlain, 2);
    EXPECT_EQ(Stats().notInBuffer, 2U);
}

TEST_F(ArqTogetherTest, AnOfferIsOf64NumbersAtMost)
{
    MakeTrainEngine({ .ringSize = 256 });
    StoreAll(1, 131);
    EXPECT_EQ(Ask(Row(1, 131), { 2, 200, 1000 }), 1U);
    EXPECT_EQ(m_train.m_offers, (Counts { 64, 64, 3 }));
    EXPECT_EQ(Sent(), Row(1, 131));
    EXPECT_EQ(Stats().longestRun, 130U);
}

TEST_F(ArqTogetherTest, ANumberThatIsListedAgainIsHeldOff)
{
    StoreAll(1, 4);
    EXPECT_EQ(Ask({ 1, 2, 1, 3, 4, 2 }), 1U);
    EXPECT_EQ(Sent(), (Seqs { 1, 2, 3, 4 }));
    EXPECT_EQ(Stats().retransmitted, 4U);
}

TEST_F(ArqTogetherTest, ATrainHoldsOffTheNextRequestFromWhenItHasLeft)
{
    StoreAll(1, 3);
    m_train.m_onOffer = [&] { m_clock.Advance(500); };
    EXPECT_EQ(Ask({ 1, 2, 3 }), 1U);
    m_clock.Set(NOW + 500 + HOLD_OFF_TICKS - 1);
    EXPECT_EQ(Ask({ 1, 2, 3 }), 1U);
    EXPECT_EQ(m_train.m_sent.size(), 3U);
    m_clock.Set(NOW + 500 + HOLD_OFF_TICKS);
    EXPECT_EQ(Ask({ 1, 2, 3 }), 1U);
    EXPECT_EQ(m_train.m_sent.size(), 6U);
}

TEST_F(ArqTogetherTest, TheBudgetIsAskedBeforeEachPacketAndEndsTheList)
{
    MakeTrainEngine({ .bitRate = BYTES_PER_MS });
    StoreAll(1, 10, 100);
    EXPECT_EQ(Ask(Row(1, 10), { 1, 400, 0 }), 1U);
    EXPECT_EQ(m_train.m_offers, Counts { 4 });
    EXPECT_EQ(Sent(), Row(1, 4));
    EXPECT_EQ(Stats().overBudget, 6U);
    EXPECT_EQ(Stats().longestRun, 4U) << "the number that ended the list is counted, those behind it are not";
    EXPECT_EQ(m_pEngine->Work(), 5 + 4 * SEND_WORK);
}

TEST_F(ArqTogetherTest, TheBudgetGoesOnFromOneTrainToTheNext)
{
    MakeTrainEngine({ .bitRate = BYTES_PER_MS, .ringSize = 256 });
    StoreAll(1, 100, 20);
    EXPECT_EQ(Ask(Row(1, 100), { 1, 1400, 0 }), 1U);
    EXPECT_EQ(m_train.m_offers, (Counts { 64, 6 }));
    EXPECT_EQ(Sent(), Row(1, 70));
    EXPECT_EQ(Stats().overBudget, 30U);
}

TEST_F(ArqTogetherTest, WhatIsMissingTooOldOrReusedIsLeftOutAndCountedAsEver)
{
    StoreAll(1, 2);
    Store(3, NOW - MAX_AGE_TICKS);
    Store(5 + RING_SIZE); // in the slot of 5
    StoreAll(6, 2);
    EXPECT_EQ(Ask(Row(1, 7)), 1U); // 4 is missing
    EXPECT_EQ(Sent(), (Seqs { 1, 2, 6, 7 }));
    const ArqSendStats stats = Stats();
    EXPECT_EQ(stats.retransmitted, 4U);
    EXPECT_EQ(stats.expired, 1U);
    EXPECT_EQ(stats.notInBuffer, 1U);
    EXPECT_EQ(m_pEngine->Work(), 7 + 4 * SEND_WORK);
    EXPECT_EQ(Ask({ 3 }), 1U);
    EXPECT_EQ(Stats().notInBuffer, 2U) << "what was too old is forgotten";
}

TEST_F(ArqTogetherTest, WhatIsMissingDoesNotPartATrain)
{
    StoreAll(1, 2);
    StoreAll(4, 2);
    EXPECT_EQ(Ask(Row(1, 5)), 1U);
    EXPECT_EQ(m_train.m_offers, Counts { 4 });
    EXPECT_EQ(Stats().notInBuffer, 1U);
}

TEST_F(ArqTogetherTest, ANumberThatWasNotInTheRingIsCountedOnceWhereverTheTrainStops)
{
    for (int32_t taken = 0; taken <= 3; ++taken) {
        MakeTrainEngine();
        m_train.m_nTakes = taken;
        Store(1);
        Store(3);
        Store(5);
        EXPECT_EQ(Ask(Row(1, 6)), 1U);
        EXPECT_EQ(Sent(), (Seqs { 1, 3, 5 }));
        EXPECT_EQ(Stats().notInBuffer, 3U) << taken;
        EXPECT_EQ(Stats().longestRun, 5U) << taken;
    }
}

// ---- What happens between the look ahead and a plain send

TEST_F(ArqTogetherTest, ASlotThatIsReusedBeforeItsPlainSendSendsNeitherNumber)
{
    StoreAll(1, 4);
    m_train.m_nTakes = 1;
    m_train.m_onOffer = [&] { Store(3 + RING_SIZE); };
    EXPECT_EQ(Ask(Row(1, 4)), 1U);
    EXPECT_EQ(Sent(), (Seqs { 1, 2, 4 }));
    EXPECT_EQ(Stats().retransmitted, 3U);
    EXPECT_EQ(Ask({ 3 + RING_SIZE }), 1U) << "the newer packet is not held off";
    EXPECT_EQ(Sent(), (Seqs { 1, 2, 4, 3 + RING_SIZE }));
}

TEST_F(ArqTogetherTest, ABuiltPacketThatIsRebuiltBeforeItsPlainSendIsNotSent)
{
    MakeTrainEngine({ .headerBuilding = true });
    for (const uint16_t seq : Row(1, 4))
        (void)Build(seq);
    m_train.m_nTakes = 1;
    m_train.m_onOffer = [&] { (void)Build(3 + RING_SIZE); };
    EXPECT_EQ(Ask(Row(1, 4)), 1U);
    EXPECT_EQ(Sent(), (Seqs { 1, 2, 4 }));
    EXPECT_EQ(Stats().retransmitted, 3U);
}

TEST_F(ArqTogetherTest, WhatGrowsTooOldWhileAPlainSendWaitsIsForgottenAndNotSent)
{
    StoreAll(1, 5);
    m_train.m_nTakes = 1;
    m_train.m_onPlain = [&] { m_clock.Advance(MAX_AGE_TICKS); };
    EXPECT_EQ(Ask(Row(1, 5)), 1U);
    EXPECT_EQ(Sent(), Row(1, 2));
    EXPECT_EQ(Stats().expired, 3U);
    EXPECT_EQ(Stats().retransmitted, 2U);
}

TEST_F(ArqTogetherTest, ANumberListedAgainIsSentAgainWhenPlainSendsOutlastTheHoldOff)
{
    StoreAll(1, 3);
    m_train.m_nTakes = 0;
    m_train.m_onPlain = [&] { m_clock.Advance(HOLD_OFF_TICKS / 2); };
    EXPECT_EQ(Ask({ 1, 2, 3, 1 }), 1U);
    EXPECT_EQ(Sent(), (Seqs { 1, 2, 3, 1 }));
}

TEST_F(ArqTogetherTest, WhatTheBudgetWouldHaveCutOffIsJudgedWhenItsTurnComes)
{
    MakeTrainEngine({ .bitRate = BYTES_PER_MS });
    StoreAll(1, 6, 100);
    m_train.m_nTakes = 0;
    m_train.m_onPlain = [&] { m_clock.Advance(2 * 400 * 90); }; // the window's maximum age
    EXPECT_EQ(Ask(Row(1, 6), { 1, 400, 0 }), 1U);
    EXPECT_EQ(Sent(), Row(1, 1));
    EXPECT_EQ(Stats().expired, 5U);
    EXPECT_EQ(Stats().overBudget, 0U);
}

// ---- Built packets

TEST_F(ArqTogetherTest, BuiltPacketsLeaveAsCopiesThatAllLiveUntilTheyHaveLeft)
{
    MakeTrainEngine({ .ringSize = 128, .headerBuilding = true });
    std::vector<Bytes> expected;
    for (const uint16_t seq : Row(1, 64)) {
        expected.push_back(BytesOf(*Build(seq)));
        expected.back()[1] = 0x7A;
    }
    EXPECT_EQ(Ask(Row(1, 64)), 1U);
    EXPECT_EQ(m_train.m_offers, Counts { 64 });
    EXPECT_EQ(m_train.m_sent, expected);
}

TEST_F(ArqTogetherTest, ABuiltPacketThatIsRebuiltWhileATrainIsMadeIsLeftOut)
{
    constexpr uint16_t N = 4;
    MakeTrainEngine({ .ringSize = N, .headerBuilding = true });
    for (const uint16_t seq : Row(1, 3))
        (void)Build(seq);
    m_clock.AtNextReading([this] { EXPECT_EQ(Ask(Row(1, 3)), 1U); });
    (void)Build(1 + N); // reads the clock while the header is still the older packet's
    EXPECT_EQ(m_train.m_offers, Counts { 2 });
    EXPECT_EQ(Sent(), Row(2, 2));
    EXPECT_EQ(Stats().retransmitted, 2U);
}

// ---- The same as one by one

// All that can be seen of an engine from outside: what has left, but for the SSRC, which is the time at which the
// engine was made, and what it has counted.
struct Outcome {
    Outcome(const std::vector<Bytes>& datagrams, std::vector<uint32_t> counted)
        : sent(datagrams),
          figures(std::move(counted))
    {
        for (Bytes& datagram : sent)
            std::fill_n(
                datagram.begin() + offsetof(MediaHeader, ssrc), sizeof(MediaHeader::ssrc), uint8_t { 0 });
    }
    std::vector<Bytes> sent;
    std::vector<uint32_t> figures;
};

// Stores and requests of all kinds, drawn from a seed.
class Play {
public:
    // The stream takes up to `takes` packets of an offer.
    Play(unsigned seed, bool headerBuilding, int32_t takes)
        : m_random(seed),
          m_pEngine(new CArqSend(m_ok, &m_clock, &m_callback, 2, 200, RING, 1000000, headerBuilding)),
          m_bHeaderBuilding(headerBuilding),
          m_usNext(static_cast<uint16_t>(65000 + Draw(600)))
    {
        m_callback.m_nTakes = takes;
    }
    Play(const Play&) = delete;
    Play& operator=(const Play&) = delete;

    Outcome Run()
    {
        constexpr int TURNS = 25;
        for (int turn = 0; turn < TURNS; ++turn) {
            for (uint32_t count = Draw(150); count > 0; --count)
                StoreNext();
            AskForSome();
            m_clock.Advance(Draw(9000));
        }
        ArqSendStats stats {};
        m_pEngine->GetStats(&stats);
        return { m_callback.m_sent,
            { stats.retransmitted, stats.notInBuffer, stats.longestRun, stats.overBudget, stats.expired,
                m_pEngine->Work(), m_pEngine->NextExpectedRequest() } };
    }

private:
    static constexpr uint32_t RING = 128;

    uint32_t Draw(uint32_t below) { return static_cast<uint32_t>(m_random() % below); }

    void StoreNext()
    {
        m_clock.Advance(Draw(200));
        const uint16_t seq = m_usNext++;
        if (Draw(20) == 0)
            return; // never sent
        const size_t length = 1 + Draw(700);
        if (m_bHeaderBuilding) {
            (void)m_pEngine->BuildAndStore(m_payload.data(), static_cast<int32_t>(length), seq);
            return;
        }
        m_packets.push_back(
            test_support::MakePacket(test_support::RtpPacket(seq, m_clock.LocalNow(), length)));
        m_pEngine->StoreSent(m_packets.back()->Get());
    }

    // Mostly in a row, with jumps: numbers come again, were never sent, are too old or yet to come.
    void AskForSome()
    {
        constexpr uint32_t REACH = 2 * RING;
        Seqs seqs;
        auto asked = static_cast<uint16_t>(m_usNext - Draw(REACH));
        for (uint32_t count = Draw(200); count > 0; --count) {
            asked = static_cast<uint16_t>(Draw(8) == 0 ? m_usNext + 10 - Draw(REACH) : asked + 1U);
            seqs.push_back(asked);
        }
        const RequestWindow window { static_cast<uint16_t>(Draw(4)), static_cast<uint16_t>(Draw(200)),
            static_cast<uint16_t>(Draw(300)) };
        test_support::TestPacket request(test_support::Request(seqs, window));
        (void)m_pEngine->ProcessBuffer(request.Get());
    }

    std::minstd_rand m_random;
    bool m_ok = true;
    test_support::FixedClock m_clock { 0xFFFF0000U }; // wraps on the way
    TrainCallback m_callback;
    CArqSend* m_pEngine; // the callback's
    const bool m_bHeaderBuilding;
    uint16_t m_usNext;
    Bytes m_payload = test_support::Payload(700);
    std::vector<std::unique_ptr<test_support::TestPacket>> m_packets;
};

constexpr unsigned SEEDS = 4;

TEST(ArqTogetherOutcomeTest, HoweverManyLeaveTogetherTheSameIsSentAndCounted)
{
    for (unsigned seed = 1; seed <= SEEDS; ++seed) {
        for (const bool headerBuilding : { false, true }) {
            const Outcome oneByOne = Play(seed, headerBuilding, 0).Run();
            EXPECT_GT(oneByOne.sent.size(), 100U);
            for (const int32_t takes : { 1, 7, 63, TrainCallback::ALL }) {
                SCOPED_TRACE(testing::Message() << seed << " " << headerBuilding << " " << takes);
                const Outcome together = Play(seed, headerBuilding, takes).Run();
                EXPECT_TRUE(together.sent == oneByOne.sent); // too much to be printed
                EXPECT_EQ(together.figures, oneByOne.figures);
            }
        }
    }
}

} // namespace
