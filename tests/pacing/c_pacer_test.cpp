#include "pacing/c_pacer.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "input/packet_buffer.h"
#include "support/allocation_hooks.h"
#include "support/captured_output.h"
#include "support/loopback.h"

namespace {

using test_support::CapturedOutput;
using test_support::FailNthAllocation;
using test_support::WaitFor;

constexpr int32_t PERIOD_MS = 10;

class RecordingSend : public CPacerSend {
public:
    bool Send(PacketBuffer* packet) override
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_sent.push_back(packet);
        return true;
    }
    void SendTogether(PacketBuffer* const* packets, int32_t count) override
    {
        m_together.push_back(count);
        CPacerSend::SendTogether(packets, count);
        if (m_onSend)
            m_onSend();
    }
    std::vector<PacketBuffer*> Sent()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_sent;
    }
    size_t Count() { return Sent().size(); }

    // For the tests that make the ticks themselves.
    std::vector<int32_t> m_together; // packets of each call, in its order
    std::function<void()> m_onSend; // done at the end of each call

private:
    std::mutex m_mutex;
    std::vector<PacketBuffer*> m_sent;
};

// A pacer whose ticks are the test's: those of its own timer do nothing.
class HandDrivenPacer : public CPacer {
public:
    using CPacer::CPacer;
    ~HandDrivenPacer() override { Stop(); }

    int OnTimer() override { return 0; }
    void Tick() { (void)CPacer::OnTimer(); }
};

class CPacerTest : public testing::Test {
protected:
    CPacerTest() { m_pacer = std::make_unique<HandDrivenPacer>(m_ok, &m_send, PERIOD_MS); }
    ~CPacerTest() override { m_pacer.reset(); }

    void Start() { EXPECT_TRUE(m_pacer->Start()); }
    PacketBuffer* NewPacket(int32_t length)
    {
        PacketBuffer& packet = m_packets.emplace_back();
        packet.partCount = 1;
        packet.SetLength(length);
        return &packet;
    }
    void Submit(int count, int32_t length = 1328)
    {
        for (int i = 0; i < count; ++i)
            EXPECT_TRUE(m_pacer->Submit(NewPacket(length)));
    }
    // Packets that one tick releases.
    size_t ReleasedByTick()
    {
        const size_t before = m_send.Count();
        m_pacer->Tick();
        return m_send.Count() - before;
    }

    bool m_ok = true;
    CapturedOutput m_output;
    RecordingSend m_send;
    std::deque<PacketBuffer> m_packets;
    std::unique_ptr<HandDrivenPacer> m_pacer;
};

TEST(TickQuotaBytes, IsTheShareOfOnePeriod)
{
    EXPECT_EQ(TickQuotaBytes(10000000, 10), 12500U);
    EXPECT_EQ(TickQuotaBytes(1000000, 10), 1250U);
    EXPECT_EQ(TickQuotaBytes(1599, 10), 1U);
    EXPECT_EQ(TickQuotaBytes(799, 10), 0U);
    EXPECT_EQ(TickQuotaBytes(0, 10), 0U);
}

TEST(TickQuotaBytes, TheProductWrapsBeforeTheDivision)
{
    EXPECT_EQ(TickQuotaBytes(429496729, 10), 536870U);
    EXPECT_EQ(TickQuotaBytes(429496730, 10), 0U);
    EXPECT_EQ(TickQuotaBytes(500000000, 10), (5000000000U - 4294967296U) / 8000U);
}

TEST(StartQuota, CarriesADebtInFullAndASurplusNever)
{
    EXPECT_EQ(StartQuota(0, 12500), 12500);
    EXPECT_EQ(StartQuota(-660, 12500), 11840);
    EXPECT_EQ(StartQuota(-20000, 12500), -7500);
    EXPECT_EQ(StartQuota(1, 12500), 12500);
    EXPECT_EQ(StartQuota(12500, 12500), 12500);
}

TEST_F(CPacerTest, StartsAtTenMegabitsPerSecondAndSaysItsQuota)
{
    EXPECT_TRUE(m_ok);
    EXPECT_EQ(m_pacer->QuotaBytes(), 12500U);
    EXPECT_EQ(m_pacer->Carry(), 0);
    EXPECT_EQ(m_pacer->Overflows(), 0U);
    EXPECT_EQ(m_output.Out(), "CPacer::SetPacingRate m_ulQuotaBytes 12500\n");
}

TEST_F(CPacerTest, ReleasesTenNineAndTenPacketsAtTheDefaultRate)
{
    m_pacer->SetHeaderBytes(12);
    Start();
    Submit(40);
    EXPECT_EQ(ReleasedByTick(), 10U);
    EXPECT_EQ(m_pacer->Carry(), -660);
    EXPECT_EQ(ReleasedByTick(), 9U);
    EXPECT_EQ(m_pacer->Carry(), -4);
    EXPECT_EQ(ReleasedByTick(), 10U);
    EXPECT_EQ(m_pacer->Carry(), -664);
    const std::vector<PacketBuffer*> sent = m_send.Sent();
    for (size_t i = 0; i < sent.size(); ++i)
        EXPECT_EQ(sent[i], &m_packets[i]);
}

TEST_F(CPacerTest, WhatOneTickReleasesIsSentTogether)
{
    m_pacer->SetHeaderBytes(12);
    Start();
    Submit(40);
    for (int i = 0; i < 3; ++i)
        m_pacer->Tick();
    EXPECT_EQ(m_send.m_together, (std::vector<int32_t> { 10, 9, 10 }));
}

TEST_F(CPacerTest, AnEmptyTickSendsNothing)
{
    Start();
    m_pacer->Tick();
    EXPECT_EQ(m_send.m_together, std::vector<int32_t> {});
}

TEST_F(CPacerTest, NoMoreThan32PacketsAreSentTogether)
{
    Start();
    Submit(70, 100);
    EXPECT_EQ(ReleasedByTick(), 70U);
    EXPECT_EQ(m_send.m_together, (std::vector<int32_t> { 32, 32, 6 }));
    EXPECT_EQ(m_pacer->Carry(), 12500 - 7000);
    const std::vector<PacketBuffer*> sent = m_send.Sent();
    for (size_t i = 0; i < sent.size(); ++i)
        EXPECT_EQ(sent[i], &m_packets[i]);
}

TEST_F(CPacerTest, PacketsOfMixedSizesLeaveInTheTicksInWhichTheyWouldLeaveOneByOne)
{
    constexpr int32_t HEADER_BYTES = 12;
    m_pacer->SetHeaderBytes(HEADER_BYTES);
    Start();
    std::minstd_rand random(1); // NOLINT(cert-msc51-cpp): the same sizes each time
    for (int i = 0; i < 500; ++i)
        Submit(1, HEADER_BYTES + static_cast<int32_t>(random() % (i % 150 < 75 ? 1500 : 150)));
    int32_t left = 0;
    for (size_t next = 0; next < m_packets.size();) {
        const size_t first = next;
        left = std::min(left, 0) + 12500;
        while (left > 0 && next < m_packets.size())
            left -= m_packets[next++].Length() - HEADER_BYTES;
        EXPECT_EQ(ReleasedByTick(), next - first) << first;
        EXPECT_EQ(m_pacer->Carry(), left) << first;
    }
    EXPECT_GT(std::count(m_send.m_together.begin(), m_send.m_together.end(), 32), 0);
}

TEST_F(CPacerTest, WhatComesWhileATickSendsIsReleasedByTheSameTick)
{
    Start();
    Submit(1, 100);
    m_send.m_onSend = [this] {
        m_send.m_onSend = nullptr;
        Submit(2, 100);
    };
    EXPECT_EQ(ReleasedByTick(), 3U);
    EXPECT_EQ(m_send.m_together, (std::vector<int32_t> { 1, 2 }));
}

// An overflow meanwhile sends the oldest that is still queued: with many in hand it would overtake them all.
TEST_F(CPacerTest, WhileTheQueueIsMoreThanHalfFullPacketsAreSentOneByOne)
{
    Start();
    Submit(512 + 3, 100);
    EXPECT_EQ(ReleasedByTick(), 125U);
    EXPECT_EQ(m_send.m_together, (std::vector<int32_t> { 1, 1, 1, 32, 32, 32, 26 }));
}

TEST_F(CPacerTest, AnOverflowIsSentAloneOnTheSubmittingThread)
{
    Submit(1024);
    Submit(2);
    EXPECT_EQ(m_send.Count(), 2U);
    EXPECT_EQ(m_send.m_together, std::vector<int32_t> {});
}

TEST_F(CPacerTest, WithoutHeaderAllowanceTheWholePacketIsCharged)
{
    Start();
    Submit(2, 1000);
    EXPECT_EQ(ReleasedByTick(), 2U);
    EXPECT_EQ(m_pacer->Carry(), 12500 - 2000);
}

TEST_F(CPacerTest, AnIdleSpellSavesNothingUp)
{
    Start();
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(ReleasedByTick(), 0U);
    EXPECT_EQ(m_pacer->Carry(), 12500);
    Submit(40, 1000);
    EXPECT_EQ(ReleasedByTick(), 13U) << "one tick's quota and the packet that overdraws it";
    EXPECT_EQ(m_pacer->Carry(), -500);
}

TEST_F(CPacerTest, WhenTheQuotaIsUsedUpExactlyNothingMoreIsReleased)
{
    Start();
    Submit(6, 2500);
    EXPECT_EQ(ReleasedByTick(), 5U);
    EXPECT_EQ(m_pacer->Carry(), 0);
    EXPECT_EQ(ReleasedByTick(), 1U);
}

TEST_F(CPacerTest, APacketLargerThanTheQuotaIsReleasedAndItsDebtPaidBackByTheNextTicks)
{
    Start();
    Submit(1, 30000);
    Submit(1, 100);
    EXPECT_EQ(ReleasedByTick(), 1U);
    EXPECT_EQ(m_pacer->Carry(), -17500);
    EXPECT_EQ(ReleasedByTick(), 0U);
    EXPECT_EQ(m_pacer->Carry(), -5000);
    EXPECT_EQ(ReleasedByTick(), 1U);
    EXPECT_EQ(m_pacer->Carry(), 7400);
}

TEST_F(CPacerTest, WhileNotRunningATickReleasesNothing)
{
    Submit(1);
    EXPECT_EQ(ReleasedByTick(), 0U);
    EXPECT_EQ(m_pacer->Queue()->Count(), 1);
    EXPECT_EQ(m_pacer->Carry(), 0);
}

TEST_F(CPacerTest, The1025thSubmissionSendsTheOldestAtOnceAndCountsAnOverflow)
{
    Submit(1024);
    EXPECT_EQ(m_send.Count(), 0U);
    EXPECT_EQ(m_pacer->Overflows(), 0U);
    Submit(1);
    EXPECT_EQ(m_send.Sent(), (std::vector<PacketBuffer*> { &m_packets[0] }));
    EXPECT_EQ(m_pacer->Overflows(), 1U);
    EXPECT_EQ(m_pacer->Queue()->Count(), 1024);
    EXPECT_EQ(m_pacer->Queue()->Peek(), &m_packets[1]);
    Start();
    (void)ReleasedByTick();
    EXPECT_EQ(m_send.Sent()[1], &m_packets[1]);
}

TEST_F(CPacerTest, ARateChangeDiscardsWhatIsQueuedAndForgetsTheDebt)
{
    Start();
    Submit(20, 1328);
    EXPECT_EQ(ReleasedByTick(), 10U);
    EXPECT_NE(m_pacer->Carry(), 0);
    m_pacer->SetPacingRate(1000000);
    EXPECT_EQ(m_pacer->QuotaBytes(), 1250U);
    EXPECT_EQ(m_pacer->Carry(), 0);
    EXPECT_EQ(ReleasedByTick(), 0U);
    EXPECT_EQ(m_pacer->Queue()->Count(), 0);
    EXPECT_NE(m_output.Out().find("CPacer::SetPacingRate m_ulQuotaBytes 1250\n"), std::string::npos);
}

TEST_F(CPacerTest, SetHeaderBytesCountsForTheQueueToo)
{
    m_pacer->SetHeaderBytes(12);
    Submit(2, 1328);
    EXPECT_EQ(m_pacer->Queue()->Bytes(), 2 * 1316);
}

TEST_F(CPacerTest, StopDiscardsWhatIsQueuedUnsent)
{
    Start();
    Submit(5);
    m_pacer->Stop();
    EXPECT_EQ(m_pacer->Queue()->Count(), 0);
    EXPECT_EQ(ReleasedByTick(), 0U);
    EXPECT_EQ(m_send.Count(), 0U);
}

TEST(CPacer, ItsTimerReleasesThePacketsInOrder)
{
    const CapturedOutput output;
    std::deque<PacketBuffer> packets(30);
    RecordingSend send;
    bool ok = true;
    CPacer pacer(ok, &send, PERIOD_MS);
    ASSERT_TRUE(ok && pacer.Start());
    for (PacketBuffer& packet : packets) {
        packet.partCount = 1;
        packet.SetLength(1328);
        EXPECT_TRUE(pacer.Submit(&packet));
    }
    EXPECT_TRUE(WaitFor([&] { return send.Count() == 30; }));
    const std::vector<PacketBuffer*> sent = send.Sent();
    for (size_t i = 0; i < sent.size(); ++i)
        EXPECT_EQ(sent[i], &packets[i]);
    EXPECT_EQ(pacer.Overflows(), 0U);
}

TEST(CPacer, StartPrintsThePeriodOfItsTimer)
{
    RecordingSend send;
    bool ok = true;
    CapturedOutput output;
    CPacer pacer(ok, &send, 1);
    EXPECT_TRUE(pacer.Start());
    pacer.Stop();
    EXPECT_EQ(output.Out(), "CPacer::SetPacingRate m_ulQuotaBytes 1250\nPeriodicTimer::Start 1\n");
}

TEST(CPacer, WithoutMemoryForQueueSlotsOrTimerItIsNotOk)
{
    const CapturedOutput output;
    RecordingSend send;
    for (int n = 1; n <= 3; ++n) {
        bool ok = true;
        const FailNthAllocation failing(n);
        CPacer pacer(ok, &send, PERIOD_MS);
        EXPECT_TRUE(failing.Fired()) << n;
        EXPECT_FALSE(ok) << n;
        if (n < 3) {
            EXPECT_TRUE(pacer.Start()) << "without a timer there is nothing to start";
        }
    }
}

TEST(CPacer, AFlagThatIsClearAlreadyStaysClear)
{
    const CapturedOutput output;
    RecordingSend send;
    bool ok = false;
    const CPacer pacer(ok, &send, PERIOD_MS);
    EXPECT_FALSE(ok);
}

} // namespace
