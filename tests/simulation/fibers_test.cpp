#include "simulation/fibers.h"

#include <gtest/gtest.h>

#include <string>

namespace simulation {

namespace {

// Two threads that write down what they do and when.
class SimulationFibers : public ::testing::Test {
protected:
    void RunAll()
    {
        while (!m_queue.IsEmpty()) {
            const EventQueue::Event event = m_queue.Take();
            m_clock.AdvanceTo(event.atUs);
            event.action->OnEvent(event.argument);
        }
    }

    void Write(const std::string& what) { m_story += what + "@" + std::to_string(m_clock.NowUs()) + " "; }

    EventQueue m_queue;
    VirtualClock m_clock { 0, 0 };
    Fibers m_fibers { m_queue, m_clock };
    std::string m_story;
    int m_nFirst = Fibers::NONE;
};

} // namespace

TEST_F(SimulationFibers, SleepersGoOnInTheOrderOfTheirTimes)
{
    (void)m_fibers.Start(
        [](void* self) {
            auto& test = *static_cast<SimulationFibers_SleepersGoOnInTheOrderOfTheirTimes_Test*>(self);
            test.Write("a");
            EXPECT_FALSE(test.m_fibers.Wait(30));
            test.Write("a");
        },
        this);
    (void)m_fibers.Start(
        [](void* self) {
            auto& test = *static_cast<SimulationFibers_SleepersGoOnInTheOrderOfTheirTimes_Test*>(self);
            EXPECT_FALSE(test.m_fibers.Wait(20));
            test.Write("b");
        },
        this);
    EXPECT_EQ(m_fibers.Running(), 2);
    RunAll();
    EXPECT_EQ(m_story, "a@0 b@20 a@30 ");
    EXPECT_EQ(m_fibers.Running(), 0);
}

TEST_F(SimulationFibers, WhoIsWokenDoesNotWakeAgainWhenTheTimeIsOver)
{
    m_nFirst = m_fibers.Start(
        [](void* self) {
            auto& test
                = *static_cast<SimulationFibers_WhoIsWokenDoesNotWakeAgainWhenTheTimeIsOver_Test*>(self);
            EXPECT_TRUE(test.m_fibers.Wait(30));
            test.Write("woken");
            EXPECT_FALSE(test.m_fibers.Wait(100));
            test.Write("over");
        },
        this);
    (void)m_fibers.Start(
        [](void* self) {
            auto& test
                = *static_cast<SimulationFibers_WhoIsWokenDoesNotWakeAgainWhenTheTimeIsOver_Test*>(self);
            (void)test.m_fibers.Wait(10);
            test.m_fibers.Wake(test.m_nFirst);
        },
        this);
    RunAll();
    EXPECT_EQ(m_story, "woken@10 over@110 ");
}

TEST_F(SimulationFibers, JoinWaitsForTheEnd)
{
    m_nFirst = m_fibers.Start(
        [](void* self) {
            auto& test = *static_cast<SimulationFibers_JoinWaitsForTheEnd_Test*>(self);
            (void)test.m_fibers.Wait(40);
            test.Write("end");
        },
        this);
    (void)m_fibers.Start(
        [](void* self) {
            auto& test = *static_cast<SimulationFibers_JoinWaitsForTheEnd_Test*>(self);
            test.m_fibers.Join(test.m_nFirst);
            test.Write("joined");
        },
        this);
    RunAll();
    EXPECT_EQ(m_story, "end@40 joined@40 ");
}

} // namespace simulation
