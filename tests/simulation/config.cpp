#include "simulation/config.h"

#include <algorithm>
#include <cinttypes>
#include <iterator>

#include "base/most_together.h"
#include "simulation/time_units.h"

namespace simulation {

namespace {

constexpr int64_t HOUR = 3600 * SECOND;

constexpr const char* KINDS[] = { "short", "dense", "wide", "sparse", "days" };

Config::Kind DrawKind(Random& random)
{
    const int64_t drawn = random.Between(0, 999);
    if (drawn < 600)
        return Config::Kind::Short;
    if (drawn < 720)
        return Config::Kind::Dense;
    if (drawn < 880)
        return Config::Kind::Wide;
    return drawn < 995 ? Config::Kind::Sparse : Config::Kind::Days;
}

// Seconds since the epoch, shortly before some counter that is made of them comes round.
int64_t DrawWallSeconds(Random& random, int64_t beforeSeconds)
{
    constexpr int64_t ABOUT_NOW = 1800000000;
    constexpr int64_t WRAP = int64_t { 1 } << 32;
    const auto lastWrap = [&](int64_t perSecond, int64_t wrap) {
        return ABOUT_NOW * perSecond / wrap * wrap / perSecond + random.Between(1, 20) * wrap / perSecond
            - beforeSeconds;
    };
    switch (random.Between(0, 6)) {
    case 0:
        return lastWrap(90000, WRAP); // media ticks
    case 1:
        return lastWrap(90000, WRAP / 2); // their sign
    case 2:
        return lastWrap(1000, WRAP); // milliseconds
    case 3:
        return lastWrap(1000, WRAP / 2);
    case 4:
        return WRAP - beforeSeconds; // seconds, in 2106
    case 5:
        return WRAP / 2 - beforeSeconds; // in 2038
    default:
        return lastWrap(1000000, WRAP); // microseconds
    }
}

int64_t DrawSteadySeconds(Random& random, int64_t beforeSeconds)
{
    constexpr int64_t WRAP_SECONDS = 4294967; // of milliseconds in 32 bits
    switch (random.Between(0, 2)) {
    case 0:
        return WRAP_SECONDS - beforeSeconds;
    case 1:
        return WRAP_SECONDS / 2 - beforeSeconds;
    default:
        return random.Between(1, WRAP_SECONDS);
    }
}

LinkFaults DrawLinkFaults(Random& random, int64_t delayUs)
{
    LinkFaults faults;
    if (random.Chance(600))
        faults.lossPermille = random.Between(1, 150);
    if (random.Chance(300)) {
        faults.burstPermille = random.Between(1, 10);
        faults.burstLength = random.Between(2, 60);
    }
    if (random.Chance(500))
        faults.jitterUs = random.Between(1, 2 * delayUs + 10 * MS);
    if (random.Chance(400))
        faults.doublePermille = random.Between(1, 100);
    return faults;
}

} // namespace

Config::Config(uint64_t seedNumber) : seed(seedNumber)
{
    Random random(seed, Purpose::Config);
    kind = DrawKind(random);
    DrawShape(random);
    DrawLoad(random);
    DrawReceivers(random);
    DrawFaults(random);
    DrawClocks(random);
    DrawTrains(random);
    DrawArqrx();
}

void Config::DrawShape(Random& random)
{
    udpInputMode = random.Chance(400);
    ringSize = 1 << random.Between(5, 12);
    grossMediaBitrate = static_cast<int32_t>(random.Between(2, 60)) * 1000000;
    delayUs = random.Between(0, 60 * MS);
    // Short packets mostly: what they hold does not matter, and copying it takes time.
    smallestPayload = random.Between(1, 40);
    largestPayload = random.Chance(200) ? 1316 : random.Between(40, 200);
    firstSeq = static_cast<uint16_t>(65535 - random.Between(0, 400));
}

// Rates are so that a seed makes some 100,000 deliveries at most, days are for sparse input.
void Config::DrawLoad(Random& random)
{
    switch (kind) {
    case Kind::Short:
        packetGapUs = random.Between(4 * MS, 60 * MS);
        faultsUs = random.Between(20 * SECOND, 60 * SECOND);
        break;
    case Kind::Dense: // long enough for all numbers of 16 bits
        packetGapUs = random.Between(700, 1500);
        faultsUs = 66000 * packetGapUs;
        break;
    case Kind::Wide:
        packetGapUs = random.Between(15 * MS, 100 * MS);
        faultsUs = random.Between(20 * SECOND, 45 * SECOND);
        break;
    case Kind::Sparse:
        packetGapUs = random.Between(SECOND, 20 * SECOND);
        faultsUs = random.Between(HOUR / 6, 3 * HOUR / 2);
        break;
    case Kind::Days:
        packetGapUs = random.Between(5 * SECOND, 30 * SECOND);
        faultsUs = random.Between(20 * HOUR, 60 * HOUR);
        break;
    }
    calmUs = std::max(6 * SECOND, 12 * packetGapUs);
    const bool canPace = kind != Kind::Sparse && kind != Kind::Days && random.Chance(400);
    const int64_t meanBytes = (smallestPayload + largestPayload) / 2 + 12;
    if (canPace) // from too little to plenty
        pacingBitRate = std::max(
            int64_t { 8000 }, meanBytes * 8 * SECOND / packetGapUs * random.Between(80, 300) / 100);
    if (pacingBitRate != 0 && random.Chance(100))
        pacingBitRate += 429496730; // from here on the quota of a tick comes round in 32 bits
}

void Config::DrawReceivers(Random& random)
{
    switch (kind) {
    case Kind::Short:
        configured = static_cast<int32_t>(random.Between(0, 3));
        learnt = static_cast<int32_t>(random.Between(1, 8));
        break;
    case Kind::Dense:
        configured = static_cast<int32_t>(random.Between(0, 1));
        learnt = 1;
        break;
    case Kind::Wide: // now and then more than there is room for
        configured = static_cast<int32_t>(random.Between(0, 20));
        learnt = static_cast<int32_t>(random.Between(5, 34));
        break;
    case Kind::Sparse:
    case Kind::Days:
        configured = static_cast<int32_t>(random.Between(0, 1));
        learnt = static_cast<int32_t>(random.Between(1, 3));
        break;
    }
    sharesAddresses = random.Chance(300);
    silentPermille = random.Chance(600) ? random.Between(1, 60) : 0;
    movePermille = random.Chance(500) ? random.Between(1, 60) : 0;
    leavePermille = random.Chance(500) ? random.Between(1, 40) : 0;
    greedyPermille = random.Chance(600) ? random.Between(10, 400) : 0;
    noisePermille = random.Chance(500) ? random.Between(10, 300) : 0;
}

void Config::DrawFaults(Random& random)
{
    if (random.Chance(850))
        downlink = DrawLinkFaults(random, delayUs);
    if (random.Chance(700))
        uplink = DrawLinkFaults(random, delayUs);
    if (random.Chance(300))
        refusedPermille = random.Between(1, 30);
    if (random.Chance(300))
        inputLossPermille = random.Between(1, 40);
    if (random.Chance(200))
        inputRepeatPermille = random.Between(1, 40);
    if (random.Chance(200))
        stopsPermille = random.Between(1, 4);
    if (random.Chance(500))
        machine.oversleepUs = random.Between(10, 3 * MS);
    if (random.Chance(250))
        machine.stallPermille = random.Between(1, 20);
    if (random.Chance(600))
        commandGapUs = random.Between(SECOND / 2, 8 * SECOND);
    switchesImpairment = random.Chance(400);
}

void Config::DrawClocks(Random& random)
{
    // What comes round does so while there are faults.
    wallStartUs = DrawWallSeconds(random, random.Between(4, 18)) * SECOND + random.Between(0, SECOND - 1);
    steadyStartUs = DrawSteadySeconds(random, random.Between(4, 18)) * SECOND + random.Between(0, SECOND - 1);
    if (!random.Chance(250))
        return;
    clockSteps = static_cast<int32_t>(random.Between(1, 4));
    const int64_t steps[] = { 50 * MS, SECOND, HOUR, 2147483648 * MS };
    // A pacer makes up for every tick that a step forward makes late: 214,000,000 of them take too long here.
    largestStepUs = steps[random.Between(0, pacingBitRate != 0 ? 2 : 3)];
}

// Bursts leave the rate as it is, for a longer gap is behind them, but where packets are seconds apart anyway.
void Config::DrawTrains(Random& random)
{
    constexpr int64_t MTUS[] = { 1500, 1500, 1300, 9000 };
    const bool isSparse = packetGapUs >= SECOND;
    if (random.Chance(700)) {
        burstPermille = random.Chance(300) && !isSparse ? 1000 : random.Between(5, isSparse ? 50 : 300);
        longestBurst = random.Between(2, MOST_TOGETHER);
    }
    if (random.Chance(500))
        equalPermille = random.Chance(500) ? 1000 : random.Between(500, 990);
    if (random.Chance(400))
        refusedTrainPermille = random.Chance(150) ? 1000 : random.Between(1, 200);
    if (random.Chance(300))
        fullPermille = random.Chance(100) ? 1000 : random.Between(1, 200);
    if (random.Chance(400))
        answeredPermille = random.Chance(300) ? 1000 : random.Between(1, 200);
    mtuBytes = MTUS[random.Between(0, std::size(MTUS) - 1)];
    isOldKernel = random.Chance(300);
    if (random.Chance(200))
        routePermille = random.Between(1, 200);
}

// By a generator of its own: all else is as it was before there were such receivers. They ping and measure once a
// second, too often for days.
void Config::DrawArqrx()
{
    Random random(seed, Purpose::Arqrx);
    if (kind != Kind::Days && random.Chance(700))
        arqrxPermille = random.Chance(300) ? 1000 : random.Between(100, 700);
}

void Config::Print(FILE* stream) const
{
    fprintf(stream,
        "seed %" PRIu64 ": %s, %s, ring %d, %d bit/s for resends, pacing %" PRId64
        " bit/s; %d configured and %d learnt"
        " receivers%s; a packet every %" PRId64 " us with %" PRId64 " to %" PRId64
        " bytes, first number %u\n",
        seed, KINDS[static_cast<int>(kind)], udpInputMode ? "-u" : "RTP", ringSize, grossMediaBitrate,
        pacingBitRate, configured, learnt, sharesAddresses ? " behind shared addresses" : "", packetGapUs,
        smallestPayload, largestPayload, firstSeq);
    const auto printLink = [stream](const char* name, const LinkFaults& faults) {
        fprintf(stream,
            "  %s: loss %" PRId64 ", bursts %" PRId64 " of %" PRId64 ", jitter %" PRId64
            " us, doubled %" PRId64 "\n",
            name, faults.lossPermille, faults.burstPermille, faults.burstLength, faults.jitterUs,
            faults.doublePermille);
    };
    fprintf(stream, "  delay %" PRId64 " us\n", delayUs);
    printLink("down (per thousand)", downlink);
    printLink("up (per thousand)", uplink);
    fprintf(stream,
        "  per thousand: refused %" PRId64 ", input lost %" PRId64 ", repeated %" PRId64 ", pauses %" PRId64
        "; silent %" PRId64 ", moves %" PRId64 ", leaves %" PRId64 ", greedy %" PRId64 ", noise %" PRId64
        "; receivers are arqrx %" PRId64 "\n",
        refusedPermille, inputLossPermille, inputRepeatPermille, stopsPermille, silentPermille, movePermille,
        leavePermille, greedyPermille, noisePermille, arqrxPermille);
    fprintf(stream,
        "  bursts %" PRId64 " of up to %" PRId64 ", equal sizes %" PRId64 "; trains refused %" PRId64
        ", sends that would wait %" PRId64 ", answers to connected sockets %" PRId64 "; MTU %" PRId64
        "%s, other routes %" PRId64 "\n",
        burstPermille, longestBurst, equalPermille, refusedTrainPermille, fullPermille, answeredPermille,
        mtuBytes, isOldKernel ? ", older kernel" : "", routePermille);
    fprintf(stream,
        "  oversleep %" PRId64 " us, stalls %" PRId64 "; wall %" PRId64 " us, steady %" PRId64
        " us, %d steps of up to %" PRId64 " us; a command every %" PRId64
        " us, impairment %s; faults for %.1f s, calm for %.1f s\n",
        machine.oversleepUs, machine.stallPermille, wallStartUs, steadyStartUs, clockSteps, largestStepUs,
        commandGapUs, switchesImpairment ? "switched" : "off", static_cast<double>(faultsUs) / 1e6,
        static_cast<double>(calmUs) / 1e6);
}

} // namespace simulation
