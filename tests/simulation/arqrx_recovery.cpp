#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "simulation/failure.h"
#include "simulation/recovery.h"
#include "simulation/time_units.h"
#include "simulation/world.h"

namespace simulation {

namespace {

constexpr int64_t PAYLOAD_BYTES = 1316; // seven packets of a transport stream
constexpr int64_t MEDIA_HEADER_BYTES = 12;

constexpr const char* USAGE
    = "usage: simulation --recovery [loss=PERCENT] [up=PERCENT] [burst=PACKETS] [rate=MBIT]\n"
      "           [roundtrip=MS] [jitter=MS] [latency=MS] [ring=PACKETS] [gross=MBIT]\n"
      "           [receivers=COUNT] [seconds=COUNT] [hops=COUNT] [seed=NUMBER]\n"
      "loss is that of media, up that of requests (loss, if it is not given); with burst so\n"
      "many packets are lost together on average. First values: loss=2 rate=8 roundtrip=20\n"
      "jitter=0 latency=600 ring=4096 gross=50 receivers=50 seconds=60 hops=3 seed=1\n";

struct Words {
    double loss = 2; // per cent
    double up = -1; // as loss
    double burst = 0;
    double rate = 8; // Mbit/s of payload
    double roundtrip = 20; // ms
    double jitter = 0;
    double latency = 600;
    double ring = 4096;
    double gross = 50; // Mbit/s
    double receivers = 50;
    double seconds = 60;
    double hops = 3;
    double seed = 1;
};

struct Word {
    const char* name;
    double Words::*value;
    double least;
    double most;
};

constexpr Word WORDS[]
    = { { "loss", &Words::loss, 0, 50 }, { "up", &Words::up, 0, 50 }, { "burst", &Words::burst, 0, 1000 },
          { "rate", &Words::rate, 0.1, 100 }, { "roundtrip", &Words::roundtrip, 0, 2000 },
          { "jitter", &Words::jitter, 0, 1000 }, { "latency", &Words::latency, 10, 10000 },
          { "ring", &Words::ring, 1, 65536 }, { "gross", &Words::gross, 1, 2000 },
          { "receivers", &Words::receivers, 1, 50 }, { "seconds", &Words::seconds, 1, 3600 },
          { "hops", &Words::hops, 1, 100 }, { "seed", &Words::seed, 0, 1e15 } };

bool ReadWord(const char* text, Words& words)
{
    const char* equals = strchr(text, '=');
    if (equals == nullptr)
        return false;
    for (const Word& word : WORDS) {
        if (std::string(text, equals) != word.name)
            continue;
        char* end = nullptr;
        const double value = strtod(equals + 1, &end);
        words.*word.value = value;
        return end != equals + 1 && *end == '\0' && value >= word.least && value <= word.most;
    }
    return false;
}

// Losses are counted in thousandths of the datagrams, as the links draw them.
LinkFaults FaultsOf(double percent, double burst, double jitterMs)
{
    LinkFaults faults;
    if (burst >= 1) {
        faults.burstPermille = std::lround(percent * 10 / burst);
        faults.burstLength = std::lround(burst);
    } else {
        faults.lossPermille = std::lround(percent * 10);
    }
    faults.jitterUs = std::lround(jitterMs * 1000);
    return faults;
}

Config ConfigOf(const Words& words)
{
    Config config = Config::Plain(static_cast<uint64_t>(words.seed));
    config.ringSize = static_cast<int32_t>(words.ring);
    config.grossMediaBitrate = static_cast<int32_t>(words.gross * 1e6);
    config.learnt = static_cast<int32_t>(words.receivers);
    config.arqrxPermille = 1000;
    config.arqrxLatencyUs = std::lround(words.latency * 1000);
    config.packetGapUs = std::lround(static_cast<double>(PAYLOAD_BYTES) * 8 / words.rate);
    config.smallestPayload = PAYLOAD_BYTES;
    config.largestPayload = PAYLOAD_BYTES;
    config.delayUs = std::lround(words.roundtrip * 1000 / 2);
    config.downlink = FaultsOf(words.loss, words.burst, words.jitter);
    config.uplink = FaultsOf(words.up < 0 ? words.loss : words.up, 0, words.jitter);
    config.steadyStartUs = SECOND;
    config.wallStartUs = 1800000000 * SECOND;
    config.faultsUs = std::lround(words.seconds * 1e6);
    config.datagramBudget = UINT64_MAX;
    return config;
}

// The chance that a packet is lost and that so many tries at having it again fail too.
double LostAfter(double down, double up, double tries)
{
    return down * std::pow(1 - (1 - down) * (1 - up), tries);
}

// The first as soon as the gap shows, then one each hold-off and a little, while its answer still comes in time.
double TriesIn(const Words& words)
{
    constexpr double BETWEEN_MS = 105;
    return std::max(0.0, 1 + std::floor((words.latency - words.roundtrip - words.jitter) / BETWEEN_MS));
}

void PrintHop(const Words& words, const Config& config, const PlayedTotals& played)
{
    const double down = words.loss / 100;
    const double up = words.up < 0 ? down : words.up / 100;
    const auto packets = static_cast<double>(played.played + played.lost);
    const double lost = static_cast<double>(played.lost) / packets;
    const double receiverSeconds = words.receivers * static_cast<double>(config.faultsUs) / 1e6;
    const double packetRate = 1e6 / static_cast<double>(config.packetGapUs);
    fprintf(Report(),
        "one hop: %.3g packets expected by %d receivers; missing %llu, recovered %llu, lost %llu\n", packets,
        config.learnt, static_cast<unsigned long long>(played.missing),
        static_cast<unsigned long long>(played.recovered), static_cast<unsigned long long>(played.lost));
    const double tries = TriesIn(words);
    fprintf(Report(), "lost of all: %.2g; %.0f tries fit into the latency and leave %.2g\n", lost, tries,
        LostAfter(down, up, tries));
    const double datagramBytes = static_cast<double>(PAYLOAD_BYTES + MEDIA_HEADER_BYTES);
    fprintf(Report(),
        "a receiver gets %.0f packets/s and %.2f resends/s (%.3f times the bandwidth, %.2f Mbit/s) and sends %.2f "
        "requests/s for %.2f numbers/s\n",
        packetRate, static_cast<double>(played.resends) / receiverSeconds,
        static_cast<double>(played.received) / packets,
        static_cast<double>(played.received) * datagramBytes * 8 / receiverSeconds / 1e6,
        static_cast<double>(played.requests) / receiverSeconds,
        static_cast<double>(played.numbersAsked) / receiverSeconds);
    fprintf(Report(), "%.0f hops: latency %.0f ms and %.0f ms on the way, lost of all %.2g\n", words.hops,
        words.hops * words.latency, words.hops * words.roundtrip / 2, 1 - std::pow(1 - lost, words.hops));
}

} // namespace

int RunRecovery(int count, char** words)
{
    Words read;
    for (int i = 0; i < count; ++i) {
        if (ReadWord(words[i], read))
            continue;
        fprintf(stderr, "%s", USAGE);
        return static_cast<int>(Outcome::Usage);
    }
    const Config config = ConfigOf(read);
    TellSeed(config.seed);
    TellConfig(&config);
    World world(config);
    PrintHop(read, config, world.Run().played);
    TellConfig(nullptr);
    (void)fflush(Report());
    return static_cast<int>(Outcome::Fine);
}

} // namespace simulation
