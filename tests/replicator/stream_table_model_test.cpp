// Every order in which two writers, two readers and the destroyer can take their steps on the stream table. The
// steps are those of StreamTable and ReadSections, one access to a shared word each; their words are sequentially
// consistent, so an order of steps is all there is. What stands here is a model: whoever changes a step there
// changes it here.
#include <algorithm>
#include <cstdint>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

// What a faulty table would do; None is ours.
enum class Fault {
    None,
    ReaderLoadsBeforeItIsCounted,
    PeriodSeesOneSide,
    FirstLookLeftOut,
    SidesNeverChange,
    NoPeriod,
    LateOnesJoinThePeriod,
    ReaderLeavesBeforeItsLastUse,
    PublishedBeforeCopied,
    PublishedBeforeCounted,
    RemovedBeforeNamed,
    RemovedBeforePublished,
    RemovedInPlace,
    StateReadBeforeLocked,
    UnlockedBeforePublished,
    CountBeforeEntry,
    WritersWithoutLock,
};

constexpr uint8_t STATES = 3;
constexpr uint8_t NOTHING = 9;
constexpr uint8_t LEAVES = 0; // the stream that the first writer removes
constexpr uint8_t STAYS = 1; // moves into its place
constexpr uint8_t COMES = 2; // the second writer appends it and removes it again
constexpr uint8_t STREAMS = 3;

enum Actor : uint8_t { Remover, Changer, Reader1, Reader2, Destroyer, ACTORS };

// A thread: where it stands and what it has read.
struct Thread {
    uint8_t step;
    uint8_t state; // of the table
    uint8_t side;
    uint8_t count;
    uint8_t index;
    uint8_t stream;
    uint8_t met; // how often a reader has met the stream that stays
};

struct State {
    uint8_t streams[3];
    uint8_t count;
    uint8_t removed;
    uint8_t isFree;
};

// Everything at one moment. Bytes only, without gaps: it is compared as a run of bytes.
struct World {
    State states[STATES];
    uint8_t current;
    uint8_t openSide;
    uint8_t readers[2];
    uint8_t removedList; // a bit a state
    uint8_t period; // likewise
    uint8_t sidesToSee;
    uint8_t lockedBy; // NOTHING: free
    uint8_t isDestroyed[STREAMS];
    uint8_t hasFailed;
    Thread threads[ACTORS];
};

constexpr uint8_t DONE = 100;

// What a removal does, one access or one run of accesses to what nobody else can see.
enum class RemovalStep { Lock, TakeState, CopyEntries, StoreCount, NameStream, Publish, HandOver, Unlock };
constexpr int REMOVAL_STEPS = 8;

// The step that a removal takes as its `index`th: the faults change places of two.
RemovalStep StepAt(Fault fault, int index)
{
    RemovalStep order[REMOVAL_STEPS]
        = { RemovalStep::Lock, RemovalStep::TakeState, RemovalStep::CopyEntries, RemovalStep::StoreCount,
              RemovalStep::NameStream, RemovalStep::Publish, RemovalStep::HandOver, RemovalStep::Unlock };
    if (fault == Fault::PublishedBeforeCopied)
        std::swap(order[2], order[5]);
    if (fault == Fault::PublishedBeforeCounted)
        std::swap(order[3], order[5]);
    if (fault == Fault::RemovedBeforeNamed)
        std::swap(order[4], order[6]);
    if (fault == Fault::RemovedBeforePublished)
        std::swap(order[5], order[6]);
    if (fault == Fault::StateReadBeforeLocked)
        std::swap(order[0], order[1]);
    if (fault == Fault::UnlockedBeforePublished)
        std::rotate(order + 5, order + 7, order + 8);
    return order[index];
}

World FirstWorld()
{
    World world {};
    for (State& state : world.states)
        state = { { NOTHING, NOTHING, NOTHING }, 0, NOTHING, 1 };
    world.states[0] = { { LEAVES, STAYS, NOTHING }, 2, NOTHING, 0 };
    world.lockedBy = NOTHING;
    return world;
}

class Explorer {
public:
    explicit Explorer(Fault fault) : m_fault(fault) {}

    // False when some order of steps goes wrong or some end has something left over.
    bool HoldsInEveryOrder()
    {
        std::vector<World> open { FirstWorld() };
        while (!open.empty()) {
            const World world = open.back();
            open.pop_back();
            if (!m_seen.insert(std::string(reinterpret_cast<const char*>(&world), sizeof(world))).second)
                continue;
            bool hasMoved = false;
            for (uint8_t actor = 0; actor < ACTORS; ++actor) {
                World next = world;
                if (!Step(next, static_cast<Actor>(actor)))
                    continue;
                if (next.hasFailed)
                    return false;
                hasMoved = true;
                open.push_back(next);
            }
            if (!hasMoved && !IsGoodEnd(world))
                return false;
        }
        return true;
    }

    size_t Seen() const { return m_seen.size(); }

private:
    // One step of an actor; false when it has ended or must wait.
    bool Step(World& world, Actor actor)
    {
        Thread& me = world.threads[actor];
        switch (actor) {
        case Remover:
            return me.step != DONE && StepOfRemoval(world, actor, LEAVES, 0, DONE);
        case Changer:
            return StepOfChanger(world);
        case Reader1:
        case Reader2:
            return me.step != DONE && StepOfReader(world, me);
        default:
            return StepOfDestroyer(world, me);
        }
    }

    bool Lock(World& world, Actor actor) const
    {
        if (m_fault == Fault::WritersWithoutLock)
            return true;
        if (world.lockedBy != NOTHING)
            return false;
        world.lockedBy = actor;
        return true;
    }

    // Takes `stream` out: the steps from `first` on, then `last`.
    bool StepOfRemoval(World& world, Actor actor, uint8_t stream, uint8_t first, uint8_t last)
    {
        Thread& me = world.threads[actor];
        State& old = world.states[me.index]; // the state that is left
        State& state = world.states[me.state];
        switch (StepAt(m_fault, me.step - first)) {
        case RemovalStep::Lock:
            if (!Lock(world, actor))
                return false;
            break;
        case RemovalStep::TakeState:
            me.index = world.current;
            return TakeFreeState(world, me);
        case RemovalStep::CopyEntries:
            CopyWithout(old, state, stream);
            break;
        case RemovalStep::StoreCount:
            state.count = static_cast<uint8_t>(old.count - (old.count != 0 ? 1 : 0));
            break;
        case RemovalStep::NameStream:
            old.removed = stream;
            break;
        case RemovalStep::Publish:
            world.current = me.state;
            break;
        case RemovalStep::HandOver:
            world.removedList |= static_cast<uint8_t>(1 << me.index);
            break;
        case RemovalStep::Unlock:
            world.lockedBy = NOTHING;
            break;
        }
        ++me.step;
        if (me.step == first + REMOVAL_STEPS)
            me.step = last;
        return true;
    }

    bool TakeFreeState(World& world, Thread& me) const
    {
        ++me.step;
        if (m_fault == Fault::RemovedInPlace) {
            me.state = world.current;
            return true;
        }
        for (uint8_t i = 0; i < STATES; ++i) {
            if (world.states[i].isFree) {
                world.states[i].isFree = 0;
                me.state = i;
                return true;
            }
        }
        --me.step; // a real table lets nobody join in that case
        return false;
    }

    static void CopyWithout(const State& from, State& to, uint8_t stream)
    {
        const State old = from;
        if (old.count == 0) // only a faulty table comes here
            return;
        const auto last = static_cast<uint8_t>(old.count - 1);
        for (uint8_t i = 0; i < last; ++i)
            to.streams[i] = old.streams[i] == stream ? old.streams[last] : old.streams[i];
    }

    // Appends, and removes again under a lock of its own.
    bool StepOfChanger(World& world)
    {
        Thread& me = world.threads[Changer];
        State& state = world.states[world.current];
        const bool countsFirst = m_fault == Fault::CountBeforeEntry;
        switch (me.step) {
        case 0:
            if (!Lock(world, Changer))
                return false;
            ++me.step;
            return true;
        case 1:
            me.count = state.count;
            me.state = world.current;
            ++me.step;
            return true;
        case 2:
        case 3:
            if ((me.step == 2) == countsFirst)
                world.states[me.state].count = static_cast<uint8_t>(me.count + 1);
            else
                world.states[me.state].streams[me.count] = COMES;
            ++me.step;
            return true;
        case 4:
            world.lockedBy = NOTHING;
            ++me.step;
            return true;
        case DONE:
            return false;
        default:
            return StepOfRemoval(world, Changer, COMES, 5, DONE);
        }
    }

    bool StepOfReader(World& world, Thread& me) const
    {
        const bool loadsFirst = m_fault == Fault::ReaderLoadsBeforeItIsCounted;
        switch (me.step) {
        case 0:
            me.side = world.openSide;
            break;
        case 1:
        case 2:
            if ((me.step == 1) == loadsFirst)
                me.state = world.current;
            else
                ++world.readers[me.side];
            break;
        case 3:
            me.count = world.states[me.state].count;
            world.hasFailed |= world.states[me.state].isFree;
            break;
        case 4:
            if (me.index == me.count) {
                if (m_fault != Fault::ReaderLeavesBeforeItsLastUse)
                    --world.readers[me.side];
                world.hasFailed |= me.met != 1;
                me.step = DONE;
                return true;
            }
            me.stream = world.states[me.state].streams[me.index];
            if (m_fault == Fault::ReaderLeavesBeforeItsLastUse && me.index + 1 == me.count)
                --world.readers[me.side];
            world.hasFailed |= world.states[me.state].isFree || me.stream == NOTHING;
            break;
        default: // uses the stream
            world.hasFailed |= me.stream < STREAMS && world.isDestroyed[me.stream];
            me.met = static_cast<uint8_t>(me.met + (me.stream == STAYS ? 1 : 0));
            ++me.index;
            me.step = 4;
            return true;
        }
        ++me.step;
        return true;
    }

    bool StepOfDestroyer(World& world, Thread& me) const
    {
        switch (me.step) {
        case 0:
            if (world.removedList == 0)
                return false;
            world.period = world.removedList;
            world.removedList = 0;
            world.sidesToSee = m_fault == Fault::NoPeriod ? 0 : m_fault == Fault::PeriodSeesOneSide ? 1 : 2;
            break;
        case 1: // one look; a side that is not empty is looked at again later
            if (world.sidesToSee == 0)
                break;
            if (world.readers[1 - world.openSide] != 0
                && (m_fault != Fault::FirstLookLeftOut || world.sidesToSee == 1))
                return false;
            if (m_fault == Fault::SidesNeverChange)
                --world.sidesToSee;
            else
                me.side = 1;
            me.step = m_fault == Fault::SidesNeverChange ? 1 : 2;
            return true;
        case 2:
            world.openSide = static_cast<uint8_t>(1 - world.openSide);
            --world.sidesToSee;
            me.step = 1;
            return true;
        default:
            if (m_fault == Fault::LateOnesJoinThePeriod)
                world.period |= std::exchange(world.removedList, 0);
            DestroyOne(world);
            me.step = world.period == 0 ? 0 : me.step;
            return true;
        }
        me.step = me.step == 0 ? 1 : 3;
        return true;
    }

    static void DestroyOne(World& world)
    {
        for (uint8_t i = 0; i < STATES; ++i) {
            if ((world.period >> i & 1) == 0)
                continue;
            State& state = world.states[i];
            world.hasFailed |= state.removed == NOTHING || world.isDestroyed[state.removed];
            if (!world.hasFailed)
                world.isDestroyed[state.removed] = 1;
            state = { { NOTHING, NOTHING, NOTHING }, 0, NOTHING, 1 };
            world.period = static_cast<uint8_t>(world.period & ~(1 << i));
            return;
        }
    }

    // Nobody can move: all have ended, what left is destroyed, what stays is not, and one state is in use.
    static bool IsGoodEnd(const World& world)
    {
        for (const Actor actor : { Remover, Changer, Reader1, Reader2 }) {
            if (world.threads[actor].step != DONE)
                return false;
        }
        int inUse = 0;
        for (const State& state : world.states)
            inUse += state.isFree ? 0 : 1;
        const State& last = world.states[world.current];
        return world.isDestroyed[LEAVES] && world.isDestroyed[COMES] && !world.isDestroyed[STAYS]
            && inUse == 1 && last.count == 1 && last.streams[0] == STAYS;
    }

    const Fault m_fault;
    std::unordered_set<std::string> m_seen;
};

TEST(StreamTableModel, HoldsInEveryOrderOfTwoWritersTwoReadersAndTheDestroyer)
{
    Explorer explorer(Fault::None);
    EXPECT_TRUE(explorer.HoldsInEveryOrder());
    EXPECT_GT(explorer.Seen(), 10000U) << "it did look at many";
}

// A fault and what a test of it is called.
struct NamedFault {
    Fault fault;
    const char* name;
};

class StreamTableFaultTest : public testing::TestWithParam<NamedFault> {};

TEST_P(StreamTableFaultTest, IsFoundInSomeOrder)
{
    Explorer explorer(GetParam().fault);
    EXPECT_FALSE(explorer.HoldsInEveryOrder());
}

constexpr NamedFault FAULTS[] = {
    { Fault::ReaderLoadsBeforeItIsCounted, "AReaderThatLoadsBeforeItIsCounted" },
    { Fault::PeriodSeesOneSide, "APeriodThatSeesOneSideOnly" },
    { Fault::FirstLookLeftOut, "APeriodThatBeginsWithoutALook" },
    { Fault::SidesNeverChange, "SidesThatNeverChange" },
    { Fault::NoPeriod, "NoPeriodAtAll" },
    { Fault::LateOnesJoinThePeriod, "WhatIsRemovedDuringAPeriodAndDestroyedWithIt" },
    { Fault::ReaderLeavesBeforeItsLastUse, "AReaderThatLeavesBeforeItsLastUse" },
    { Fault::PublishedBeforeCopied, "AStateThatIsPublishedBeforeItsEntriesAreCopied" },
    { Fault::PublishedBeforeCounted, "AStateThatIsPublishedBeforeItsCountIsStored" },
    { Fault::RemovedBeforeNamed, "ARemovalThatReachesTheDestroyerBeforeItSaysWhatLeft" },
    { Fault::RemovedBeforePublished, "ARemovalThatReachesTheDestroyerBeforeItIsPublished" },
    { Fault::RemovedInPlace, "ARemovalInPlace" },
    { Fault::StateReadBeforeLocked, "ARemovalThatReadsTheStateBeforeItHasTheLock" },
    { Fault::UnlockedBeforePublished, "ARemovalThatGivesUpTheLockBeforeItIsPublished" },
    { Fault::CountBeforeEntry, "ACountBeforeItsEntry" },
    { Fault::WritersWithoutLock, "WritersWithoutALock" },
};

INSTANTIATE_TEST_SUITE_P(StreamTableModel, StreamTableFaultTest, testing::ValuesIn(FAULTS),
    [](const testing::TestParamInfo<NamedFault>& fault) { return fault.param.name; });

} // namespace
