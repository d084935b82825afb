// The second writing of the proxy's rules, held against figures from its description.
#include <gtest/gtest.h>

#include "simulation/engine_model.h"
#include "simulation/impairment_model.h"
#include "simulation/pacer_model.h"
#include "simulation/virtual_clock.h"
#include "simulation/wraps.h"

namespace simulation {

namespace {

constexpr int32_t PACKET_BYTES = 1000;

// An engine with a ring of 16 that has sent packets 0 to 3 at tick 0, each in the buffer of its number.
class SimulationEngineModel : public ::testing::Test {
protected:
    SimulationEngineModel()
    {
        for (uint16_t seq = 0; seq < 4; ++seq) {
            m_buffers.push_back({ seq, seq, PACKET_BYTES, true });
            m_engine.Store(seq, seq, 0);
        }
    }

    std::vector<EngineModel::Verdict> Ask(
        const std::vector<uint16_t>& seqs, uint32_t nowTicks, uint16_t retries = 2, uint16_t intervalMs = 200)
    {
        std::vector<EngineModel::Verdict> verdicts;
        m_engine.Answer({ retries, intervalMs, 0, seqs }, m_buffers, nowTicks,
            [&verdicts](
                uint16_t, EngineModel::Verdict verdict, const auto&) { verdicts.push_back(verdict); });
        return verdicts;
    }

    EngineModel m_engine { 16, 50000000, false };
    std::vector<BufferContent> m_buffers;
};

using Verdict = EngineModel::Verdict;
using Verdicts = std::vector<Verdict>;

} // namespace

TEST_F(SimulationEngineModel, TheDefaultBudgetIsWhatTheWrappedProductGives)
{
    EXPECT_EQ(EngineModel::BudgetBytes(2, 200, 0, 50000000), 352516U);
}

TEST_F(SimulationEngineModel, AResendHoldsOffTheNextFor100Ms)
{
    EXPECT_EQ(Ask({ 1, 1 }, 100), (Verdicts { Verdict::Resent, Verdict::HeldOff }));
    EXPECT_EQ(Ask({ 1 }, 100 + 8999), (Verdicts { Verdict::HeldOff }));
    EXPECT_EQ(Ask({ 1 }, 100 + 9000), (Verdicts { Verdict::Resent }));
}

TEST_F(SimulationEngineModel, APacketOf600MsIsExpiredAndThenGone)
{
    EXPECT_EQ(Ask({ 1 }, 53999), (Verdicts { Verdict::Resent }));
    EXPECT_EQ(Ask({ 2, 2 }, 54000), (Verdicts { Verdict::Expired, Verdict::NotInBuffer }));
}

TEST_F(SimulationEngineModel, TheFirstThatIsOverTheBudgetEndsTheList)
{
    // 1 ms at 50 Mbit/s are 6250 bytes: all four; 0 ms are none.
    EXPECT_EQ(Ask({ 0, 1, 2, 3 }, 10, 1, 1), (Verdicts(4, Verdict::Resent)));
    EXPECT_EQ(Ask({ 0, 1, 2, 3 }, 10 + 9000, 0, 200), (Verdicts(4, Verdict::OverBudget)));
    EXPECT_EQ(m_engine.Stats().overBudget, 4U);
}

TEST_F(SimulationEngineModel, AnotherNumberInTheSlotSendsNothingAndCountsNothing)
{
    EXPECT_EQ(Ask({ 17, 5 }, 10), (Verdicts { Verdict::Reused, Verdict::NotInBuffer }));
    EXPECT_EQ(m_engine.Stats().notInBuffer, 1U);
}

TEST(SimulationImpairmentModel, Passes99ThenDropsOneAndPasses100)
{
    ImpairmentModel impairment;
    impairment.SwitchOn(1, 100);
    std::vector<int> dropped;
    for (int i = 0; i < 400; ++i) {
        if (impairment.Step())
            dropped.push_back(i);
    }
    EXPECT_EQ(dropped, (std::vector<int> { 99, 200, 301 }));
}

TEST(SimulationPacerModel, ADebtIsPaidBackAndARestIsNotSavedUp)
{
    PacerModel pacer(800000, 0); // 1000 bytes a tick
    EXPECT_EQ(pacer.Tick(), 0);
    for (uint64_t i = 0; i < 4; ++i)
        EXPECT_FALSE(pacer.Submit(i, 1500));
    EXPECT_EQ(pacer.Tick(), 1); // a debt of 500
    uint64_t input = 9;
    EXPECT_TRUE(pacer.TakeNext(&input));
    EXPECT_EQ(input, 0U);
    EXPECT_EQ(pacer.Tick(), 1); // of 1000
    EXPECT_TRUE(pacer.TakeNext(&input));
    EXPECT_EQ(pacer.Tick(), 0);
    EXPECT_EQ(pacer.Tick(), 1);
}

TEST(SimulationPacerModel, TheQueueOverflowsBehind1024Packets)
{
    PacerModel pacer(800000, 0);
    for (uint64_t i = 0; i < PacerModel::CAPACITY; ++i)
        ASSERT_FALSE(pacer.Submit(i, 1));
    EXPECT_TRUE(pacer.Submit(PacerModel::CAPACITY, 1));
}

TEST(SimulationClock, TicksAre90EachMillisecondAndComeRound)
{
    EXPECT_EQ(TicksOf(1000), 90U);
    EXPECT_EQ(TicksOf(1), 0U);
    EXPECT_EQ(TicksOf(47721858844), 4294967295U);
    EXPECT_EQ(TicksOf(47721858845), 0U);
}

TEST(SimulationWraps, BothTheWrapAndTheSignAreSeen)
{
    WrapCounts counts;
    counts.Watch(0x7FFFFFFF, 0x80000000, Wrap::WallMs, Wrap::WallMsSign);
    counts.Watch(0xFFFFFFFF, 0, Wrap::WallMs, Wrap::WallMsSign);
    counts.Watch(1, 2, Wrap::WallMs, Wrap::WallMsSign);
    EXPECT_EQ(counts.passed[static_cast<size_t>(Wrap::WallMs)], 1U);
    EXPECT_EQ(counts.passed[static_cast<size_t>(Wrap::WallMsSign)], 1U);
}

} // namespace simulation
