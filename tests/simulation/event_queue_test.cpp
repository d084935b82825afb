#include "simulation/event_queue.h"

#include <gtest/gtest.h>

#include <vector>

namespace simulation {

namespace {

class Recorder : public Action {
public:
    void OnEvent(uint64_t argument) override { seen.push_back(argument); }
    std::vector<uint64_t> seen;
};

} // namespace

TEST(SimulationEventQueue, GivesEventsByTimeAndThoseOfOneTimeInTheirOrder)
{
    Recorder recorder;
    EventQueue queue;
    queue.Put(20, recorder, 3);
    queue.Put(10, recorder, 1);
    queue.Put(20, recorder, 4);
    queue.Put(10, recorder, 2);
    while (!queue.IsEmpty()) {
        const EventQueue::Event event = queue.Take();
        event.action->OnEvent(event.argument);
    }
    EXPECT_EQ(recorder.seen, (std::vector<uint64_t> { 1, 2, 3, 4 }));
}

} // namespace simulation
