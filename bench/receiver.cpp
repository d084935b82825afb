// The receiver: processor time by bit rate, how evenly it plays out, how fast it recovers, and what stays lost where the
// line loses a fifth both ways, beside what has to stay lost.
#include <sys/prctl.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "sections/targets.h"
#include "support/child.h"
#include "support/figures.h"
#include "support/machine_load.h"
#include "support/reporting_child.h"
#include "support/scratch_folder.h"
#include "support/stamped_feed.h"
#include "support/udp.h"

namespace {

constexpr double MBIT = 1e6;
constexpr int64_t LATENCY_MS = 200; // where nothing is lost
constexpr double WARM_UP_S = 1;

struct Plan {
    double seconds = 10; // of each measurement
    double lossySeconds = 60;
    ScratchFolder scratch;
    Targets targets;
};

std::string Beside(const std::string& name)
{
    return std::filesystem::path(TX_PROXY_BIN).replace_filename(name).string();
}

std::string At(const char* address, uint16_t port)
{
    return std::string(address) + ":" + std::to_string(port);
}

// A receiver that a feed sends to directly.
ReportingChild Listening(const Plan& plan, uint16_t port, uint16_t outputPort)
{
    const std::vector<std::string> words { Beside("arqrx"), "--listen", At("127.0.0.1", port), "--latency",
        std::to_string(LATENCY_MS) + "ms", "--json", "--interval", "100ms", "--output",
        "udp://" + At("127.0.0.2", outputPort) };
    return ReportingChild(plan.scratch.Path(), words);
}

void MeasureCpu(Plan& plan, double mbit, double boundPercent)
{
    const uint16_t port = FreePort();
    Receivers sink(1, FreePort());
    ReportingChild receiver = Listening(plan, port, sink.Port());
    (void)receiver.Last("run_s"); // it listens
    StampedFeed feed(LoopbackAddress(port), mbit * MBIT, StampedFeed::Payload::TransportStream);
    (void)feed.Run(WARM_UP_S);
    const int64_t cpuBefore = receiver.Process().CpuNs();
    const int64_t wallBefore = WallNs();
    const int64_t sent = feed.Run(plan.seconds);
    const double percent = 100 * static_cast<double>(receiver.Process().CpuNs() - cpuBefore)
        / static_cast<double>(WallNs() - wallBefore);
    (void)receiver.WaitFor("packets_buffered", 0);
    printf("%6.0f Mbit/s %8lld datagrams %7.1f %% of a core; %.0f lost, %.0f without room in the kernel\n",
        mbit, static_cast<long long>(sent), percent, receiver.Last("packets_lost"),
        receiver.Last("socket_drops"));
    char condition[64];
    (void)snprintf(condition, sizeof(condition), "processor time at %.0f Mbit/s, %% of a core", mbit);
    plan.targets.Add(condition, Targets::Kind::AT_MOST, boundPercent, percent);
}

void MeasureJitter(Plan& plan)
{
    const uint16_t port = FreePort();
    Receivers player(1, FreePort());
    ReportingChild receiver = Listening(plan, port, player.Port());
    (void)receiver.Last("run_s");
    std::vector<double> delaysMs;
    const auto collect = [&] {
        (void)player.Drain([&](const Arrival& arrival) {
            delaysMs.push_back(static_cast<double>(arrival.arrivedNs - arrival.datagram.SentNs()) / 1e6);
        });
    };
    StampedFeed feed(LoopbackAddress(port), 8 * MBIT, StampedFeed::Payload::SentTime);
    (void)feed.Run(WARM_UP_S, collect);
    delaysMs.clear();
    LoadMeter load({ receiver.Process().Pid() });
    load.Begin();
    (void)feed.Run(plan.seconds, collect);
    const double others = load.Others();
    const double first = Percentile(delaysMs, 0);
    const double p50 = Percentile(delaysMs, 0.5) - first;
    const double p99 = Percentile(delaysMs, 0.99) - first;
    printf(
        "play-out at 8 Mbit/s: from the earliest on p50 %.3f ms, p99 %.3f ms, latest %.3f ms; by its own count p50 "
        "%.3f ms, p99 %.3f ms late; the machine did %.2f cores of other work\n",
        p50, p99, Percentile(delaysMs, 1) - first, receiver.Last("play_late_p50_ms"),
        receiver.Last("play_late_p99_ms"), others);
    plan.targets.Add("play-out jitter p99, ms (idle machine)", Targets::Kind::AT_MOST, 2, p99);
}

// Proxy, line and receiver, with a feed of 8 Mbit/s.
struct Chain {
    Chain(const Plan& plan, const std::string& loss, const std::string& delay, const std::string& latency)
        : proxy({ TX_PROXY_BIN, "-I", std::to_string(FreeInstance()), "-p", std::to_string(pingPort), "-r",
            std::to_string(requestPort), std::to_string(inputPort) }),
          line(plan.scratch.Path(),
              { Beside("arqlink"), "--json", "--loss", loss, "--delay", delay, "--source", "127.0.0.3",
                  At("127.0.0.1", nearPing) + "=" + At("127.0.0.1", pingPort),
                  At("127.0.0.1", nearRequest) + "=" + At("127.0.0.1", requestPort) }),
          receiver(plan.scratch.Path(),
              { Beside("arqrx"), At("127.0.0.1", nearPing), "--request-port", std::to_string(nearRequest),
                  "--latency", latency, "--json", "--interval", "100ms" }),
          feed(LoopbackAddress(inputPort), 8 * MBIT, StampedFeed::Payload::TransportStream)
    {
    }

    // Sends until all has begun, then for `seconds`, then until all that was missing is settled.
    int64_t Run(double seconds, double latencySeconds)
    {
        for (int i = 0; receiver.Last("packets_received", 0) == 0; ++i) {
            if (i == 20)
                GiveUp("no media came through proxy and line");
            (void)feed.Run(0.5);
        }
        const int64_t sent = feed.Run(seconds);
        (void)feed.Run(latencySeconds + 0.5);
        return sent;
    }

    uint16_t pingPort = FreePort();
    uint16_t requestPort = FreePort();
    uint16_t inputPort = FreePort();
    uint16_t nearPing = FreePort();
    uint16_t nearRequest = FreePort();
    Child proxy;
    ReportingChild line;
    ReportingChild receiver;
    StampedFeed feed;
};

void MeasureRecovery(Plan& plan)
{
    Chain chain(plan, "2%", "25ms", "600ms");
    (void)chain.Run(plan.seconds, 0.6);
    const double roundTrip = chain.receiver.Last("round_trip_ms");
    const double p50 = chain.receiver.Last("recover_p50_ms");
    printf(
        "recovery over 50 ms there and back, 2 %% lost both ways: round trip %.1f ms, p50 %.1f ms, p99 %.1f ms\n",
        roundTrip, p50, chain.receiver.Last("recover_p99_ms"));
    plan.targets.Add("time to recover p50, round trips", Targets::Kind::AT_MOST, 1.3, p50 / roundTrip);
}

// Packets that stay lost although all was done: the first sending and each try were lost. A try begins with the gap, and
// then whenever the hold-off, with a guard of 5 ms, is over and an answer can still come in time; it fails if the request
// or the packet is lost.
double Unavoidable(double packets, double loss, double latencyMs, double roundTripMs)
{
    constexpr double INTERVAL_MS = 105;
    const double tries = 1 + std::floor((latencyMs - roundTripMs) / INTERVAL_MS);
    const double failing = 1 - (1 - loss) * (1 - loss);
    return packets * loss * std::pow(failing, tries);
}

void MeasureResidualLoss(Plan& plan)
{
    constexpr double LOSS = 0.2;
    constexpr double LATENCY_MS_HERE = 1000;
    constexpr double ROUND_TRIP_MS = 20;
    Chain chain(plan, "20%", "10ms", "1s");
    const int64_t sent = chain.Run(plan.lossySeconds, 1);
    const double lost = chain.receiver.Last("packets_lost");
    const double expected = Unavoidable(static_cast<double>(sent), LOSS, LATENCY_MS_HERE, ROUND_TRIP_MS);
    printf(
        "20 %% lost both ways, 8 Mbit/s, 1 s latency: of %lld packets %.0f missing, %.0f recovered, %.0f lost (%.5f %%); "
        "expected where every try was lost: %.2f; %.2f requests for each that was missing\n",
        static_cast<long long>(sent), chain.receiver.Last("packets_missing"),
        chain.receiver.Last("packets_recovered"), lost, 100 * lost / static_cast<double>(sent), expected,
        chain.receiver.Last("numbers_asked") / std::max(1.0, chain.receiver.Last("packets_missing")));
    // Requests name many packets, which are lost together: chance has more to say than for single ones.
    plan.targets.Add("lost at 20 % both ways, packets (expected + chance)", Targets::Kind::AT_MOST,
        std::ceil(expected + 4 * std::sqrt(expected) + 2), lost);
}

void MeasureAll(Plan& plan)
{
    printf("arqrx, datagrams of %zu bytes, over loopback\n", sizeof(MediaDatagram));
    MeasureCpu(plan, 50, 10);
    MeasureCpu(plan, 500, 100);
    MeasureJitter(plan);
    MeasureRecovery(plan);
    MeasureResidualLoss(plan);
    plan.targets.Print();
}

} // namespace

int main(int argc, char** argv)
{
    (void)setvbuf(stdout, nullptr, _IOLBF, 0);
    return RunBenchmark([=] {
        StopOnSignals();
        (void)prctl(PR_SET_TIMERSLACK, 1);
        Plan plan;
        const bool isQuick = argc == 2 && std::strcmp(argv[1], "--quick") == 0;
        if (argc > 1 && !isQuick)
            GiveUp("usage: receiver [--quick]");
        if (isQuick) {
            plan.seconds = 1;
            plan.lossySeconds = 3;
        }
        MeasureAll(plan);
    });
}
