#include <sched.h>

#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "replicator/my_arq_send_cb.h"
#include "replicator/read_section.h"
#include "replicator/stream_table.h"

namespace {

// Enters on the side wanted, as soon as that is the one on which readers enter.
unsigned EnterOn(ReadSections& sections, unsigned wanted)
{
    for (;;) {
        const unsigned side = sections.Enter();
        if (side == wanted)
            return side;
        sections.Leave(side);
        (void)sched_yield();
    }
}

// A writer that takes entry 0 out of three waits for the readers of both sides in turn. The walk starts in
// between, on the side that the writer has waited for already, so that nothing holds the writer up while the
// walk stands at the second entry: the third stream then moves into the gap behind the walk.
TEST(StreamTableWalk, AStreamThatMovesIntoTheGapBehindTheWalkIsStillMetExactlyOnce)
{
    constexpr uint32_t STANDING_AT = 2;
    constexpr uint32_t MOVING = 3;
    TransmitStats stats;
    StreamTable table;
    for (const uint32_t id : { 1U, STANDING_AT, MOVING })
        table.Append(std::make_unique<MyArqSendCB>(stats, in_addr_t { id }, uint16_t { 9 }, id));
    ReadSections& sections = table.Readers();
    const unsigned firstSide = sections.Enter();
    std::thread taker([&] { (void)table.Take(0); });
    const unsigned secondSide = EnterOn(sections, 1 - firstSide);
    sections.Leave(firstSide);
    const unsigned walkSide = EnterOn(sections, firstSide);
    int met = 0;
    table.ForEach([&](const MyArqSendCB& stream) {
        if (stream.StreamId() == STANDING_AT && taker.joinable()) {
            sections.Leave(secondSide);
            taker.join();
        }
        met += stream.StreamId() == MOVING ? 1 : 0;
    });
    sections.Leave(walkSide);
    ASSERT_FALSE(taker.joinable());
    EXPECT_EQ(met, 1);
    EXPECT_EQ(table.Count(), 2);
    EXPECT_EQ(table.At(0)->StreamId(), MOVING) << "it did move";
}

} // namespace
