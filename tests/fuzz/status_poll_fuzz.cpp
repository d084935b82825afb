// The impairment poll, from the files on disk to the gate that packets meet: whatever the settings are, packets
// are passed or withheld whole, and every one is stored.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "control/control_context.h"
#include "control/status_poll.h"
#include "fuzz/world/files.h"
#include "fuzz/world/require.h"
#include "fuzz/world/world.h"
#include "pacing/ms_clock.h"

namespace {

constexpr uint32_t POLL_MS = 1000;

void SendMedia(World& world, uint8_t count)
{
    const Impairment& impair = world.Replicator().m_impair;
    const auto withheld = [&] { return world.Replicator().m_nDropPacket.Load(); };
    for (uint8_t i = 0; i < count; ++i) {
        const int32_t before = withheld();
        const int32_t mode = impair.m_mode;
        world.SendMedia("\x80\x21\x00\x01media of some length");
        Require(withheld() - before <= (mode == IMPAIRMENT_FIXED || mode == IMPAIRMENT_RANDOM ? 1 : 0),
            "a packet is withheld once, and only by the gate");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    InputReader input(data, size);
    const uint8_t kinds = input.Byte();
    World& world = World::Begin(kinds & 1);
    const PlainWord<int32_t> running { 1 };
    ControlContext context { .running = running };
    context.replicator = &world.Replicator();
    context.instance = (kinds & 2) != 0 ? 1 : static_cast<int8_t>(input.Byte());
    const uint8_t before = input.Byte() % 16;
    const uint8_t after = input.Byte();
    Files::s_nStatError = static_cast<int8_t>(input.Byte());
    Files::s_bHasSettings = (kinds & 4) == 0;
    Files::s_bHasToggle = true;
    Files::WriteSettings(input.Rest());

    SendMedia(world, before);
    world.Advance(POLL_MS);
    context.nextPollMs = GetTimeMs();
    PollImpairment(context);
    Require(!Files::s_bHasToggle, "a toggle is taken");
    SendMedia(world, after);
    Files::s_bHasToggle = true;
    PollImpairment(context);
    Require(Files::s_bHasToggle, "within the second nobody looks");
    const bool wasOn = world.Replicator().m_impair.m_mode != IMPAIRMENT_OFF;
    world.Advance(POLL_MS + 1);
    PollImpairment(context);
    Require(!wasOn || world.Replicator().m_impair.m_mode == IMPAIRMENT_OFF, "the next toggle ends it");
    SendMedia(world, before);
    InitImpairment(world.Replicator().m_impair);
    world.Replicator().m_nDropPacket = 0;
    world.End();
    return 0;
}
