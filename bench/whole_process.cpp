// The proxy's own binary against a bare loop of recvfrom and N sendto calls, under equal traffic on
// loopback: processor time per delivered datagram, added latency and, at the end, resident memory.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/command_line.h"
#include "support/figures.h"
#include "support/paced_stream.h"
#include "support/proxy_run.h"
#include "support/udp.h"

namespace {

constexpr char BARE_LOOP[] = "--bare-loop"; // hidden: this program runs itself as the other side

// The least that can be done: one thread, one buffer, one socket to send from.
[[noreturn]] void RunBareLoop(uint16_t inputPort, uint16_t destPort, int32_t nReceivers)
{
    sockaddr_in any = LoopbackAddress(inputPort);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    const UniqueFd input = BoundSocket(any);
    const int32_t bufferBytes = 524288; // what the proxy asks for
    (void)setsockopt(input.Get(), SOL_SOCKET, SO_RCVBUF, &bufferBytes, sizeof(bufferBytes));
    const UniqueFd output(socket(AF_INET, SOCK_DGRAM, 0));
    std::vector<sockaddr_in> destinations;
    for (int32_t i = 0; i < nReceivers; ++i)
        destinations.push_back(ReceiverAddress(i, destPort));
    uint8_t buffer[1536];
    for (;;) {
        const ssize_t length = recvfrom(input.Get(), buffer, sizeof(buffer), 0, nullptr, nullptr);
        if (length < 0)
            GiveUp("recvfrom failed");
        for (const sockaddr_in& destination : destinations) {
            (void)sendto(output.Get(), buffer, static_cast<size_t>(length), 0,
                reinterpret_cast<const sockaddr*>(&destination), sizeof(destination));
        }
    }
}

struct Comparison {
    PairedFigures cpuNs; // per delivered datagram
    PairedFigures firstMedianUs;
    PairedFigures firstP99Us;
    PairedFigures lastMedianUs;
    PairedFigures lastP99Us;
    int64_t lostBaseline = 0;
    int64_t lostMeasured = 0;
    int64_t residentKib = 0;
};

// One side's turn of a round.
struct Turn {
    int64_t cpuNs = 0;
    TurnResult result;
};

void TakePiece(Turn& turn, const Child& process, PacedStream& stream)
{
    const int64_t before = process.CpuNs();
    turn.result.Append(stream.Run(PIECE_S));
    turn.cpuNs += process.CpuNs() - before;
}

int64_t Record(
    Comparison& comparison, std::vector<double> PairedFigures::*side, const Turn& turn, int32_t nReceivers)
{
    constexpr double P99 = 0.99;
    const TurnResult& result = turn.result;
    if (result.delivered == 0)
        GiveUp("nothing was delivered");
    (comparison.cpuNs.*side)
        .push_back(static_cast<double>(turn.cpuNs) / static_cast<double>(result.delivered));
    (comparison.firstMedianUs.*side).push_back(Median(result.firstReceiverUs));
    (comparison.firstP99Us.*side).push_back(Percentile(result.firstReceiverUs, P99));
    (comparison.lastMedianUs.*side).push_back(Median(result.lastReceiverUs));
    (comparison.lastP99Us.*side).push_back(Percentile(result.lastReceiverUs, P99));
    return result.sent * nReceivers - result.delivered;
}

// Both processes live through all rounds and one of them is fed at a time; the order changes every round.
Comparison Compare(int32_t nReceivers, const BenchSettings& settings)
{
    constexpr double WARM_UP_S = 0.3;
    constexpr int FILL_RATE = 2000; // datagrams/s
    constexpr int64_t POOL_ROUND = 4096 + 1024 + 100; // datagrams after which every buffer has been used
    Receivers receivers(nReceivers, FreePort());
    const uint16_t proxyInput = FreePort();
    const uint16_t bareInput = FreePort();
    const ProxyRun proxy(receivers, proxyInput);
    const Child bare({ "/proc/self/exe", BARE_LOOP, std::to_string(bareInput),
        std::to_string(receivers.Port()), std::to_string(nReceivers) });
    WaitUntilForwarding(bare, receivers, bareInput);
    PacedStream toProxy(receivers, proxyInput, settings.perSecond);
    PacedStream toBare(receivers, bareInput, settings.perSecond);
    PacedStream(receivers, proxyInput, FILL_RATE).Fill(POOL_ROUND); // first touches cost page faults
    (void)toProxy.Run(WARM_UP_S);
    (void)toBare.Run(WARM_UP_S);

    Comparison comparison;
    for (int round = 0; round < settings.rounds; ++round) {
        Turn bareTurn;
        Turn proxyTurn;
        const int pieces = PiecesOf(settings.seconds);
        for (int piece = 0; piece < 2 * pieces; ++piece) {
            if ((round + piece) % 2 == 0)
                TakePiece(bareTurn, bare, toBare);
            else
                TakePiece(proxyTurn, proxy.Process(), toProxy);
        }
        comparison.lostBaseline += Record(comparison, &PairedFigures::baseline, bareTurn, nReceivers);
        comparison.lostMeasured += Record(comparison, &PairedFigures::measured, proxyTurn, nReceivers);
    }
    comparison.residentKib = proxy.Process().ResidentKib();
    return comparison;
}

void PrintRow(const char* name, const PairedFigures& figures, const char* unit)
{
    printf("  %-34s %9.2f %9.2f %-3s %6.2f  (%.2f to %.2f)\n", name, Median(figures.baseline),
        Median(figures.measured), unit, figures.MedianRatio(), figures.LowestRatio(), figures.HighestRatio());
}

void Print(int32_t nReceivers, const Comparison& comparison)
{
    constexpr double KIB_PER_MIB = 1024;
    printf("\n%d receiver(s)                         bare loop  tx_proxy      ratio  (of the rounds)\n",
        nReceivers);
    PairedFigures cpuUs = comparison.cpuNs;
    for (auto* side : { &cpuUs.baseline, &cpuUs.measured }) {
        for (double& value : *side)
            value /= 1000;
    }
    PrintRow("CPU per delivered datagram", cpuUs, "us");
    PrintRow("latency, first receiver, median", comparison.firstMedianUs, "us");
    PrintRow("latency, first receiver, p99", comparison.firstP99Us, "us");
    PrintRow("latency, last receiver, median", comparison.lastMedianUs, "us");
    PrintRow("latency, last receiver, p99", comparison.lastP99Us, "us");
    printf("  %-34s %9lld %9lld\n", "datagrams lost", static_cast<long long>(comparison.lostBaseline),
        static_cast<long long>(comparison.lostMeasured));
    printf("  %-34s %9s %9.2f MiB\n", "resident after the pool's round", "",
        static_cast<double>(comparison.residentKib) / KIB_PER_MIB);
    (void)fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    return RunBenchmark([=] {
        if (argc == 5 && std::strcmp(argv[1], BARE_LOOP) == 0)
            RunBareLoop(static_cast<uint16_t>(std::atoi(argv[2])), static_cast<uint16_t>(std::atoi(argv[3])),
                std::atoi(argv[4]));
        const BenchSettings settings = ReadBenchSettings(argc, argv);
        printf("%d paired rounds, turns of %g s, %d datagrams/s of %zu bytes\n", settings.rounds,
            settings.seconds, settings.perSecond, sizeof(MediaDatagram));
        for (const int32_t nReceivers : { 1, 10, 50 }) {
            if (settings.receivers == 0 || settings.receivers == nReceivers)
                Print(nReceivers, Compare(nReceivers, settings));
        }
    });
}
