#include <sys/socket.h>

#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../support/child.h"
#include "../support/contender.h"
#include "../support/figures.h"
#include "../support/paced_stream.h"
#include "../support/reading_outlet.h"
#include "../support/request_datagram.h"
#include "../support/udp.h"
#include "bench.h"
#include "entries.h"
#include "rounds.h"

namespace {

constexpr int64_t NS_PER_S = 1000000000;
constexpr int32_t RING_SIZE = 4096; // the proxy's default
constexpr int32_t RECEIVERS = 50;
constexpr int FILL_RATE = 2000; // datagrams/s
constexpr int PER_SECOND = 800; // as in the table of latencies

void SendTo(int fd, const void* data, size_t length, const sockaddr_in& destination)
{
    (void)sendto(fd, data, length, 0, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination));
}

// Receivers that each miss every twentieth packet and ask for it, alone, some 50 ms after it was sent. They
// send at random moments: real receivers do not wait for the fan-out to be over. The first requests are for
// packets from before the beginning, so that there are requests all the time.
class Losers {
public:
    // Plans for a stream of `count` datagrams, `perSecond`, that begins now with `firstSeq`.
    Losers(Receivers& receivers, const sockaddr_in& requests, uint16_t firstSeq, int64_t count, int perSecond)
        : m_receivers(receivers),
          m_requests(requests),
          m_nCount(count),
          m_nPeriodNs(NS_PER_S / perSecond),
          m_usFirst(static_cast<uint16_t>(firstSeq - DELAY_NS / m_nPeriodNs)),
          m_nStartNs(WallNs()),
          m_thread([this] { Run(); })
    {
    }
    Losers(const Losers&) = delete;
    Losers& operator=(const Losers&) = delete;
    ~Losers() { (void)Finish(); }

    // Waits for the end; returns the number of requests sent.
    int64_t Finish()
    {
        if (m_thread.joinable())
            m_thread.join();
        return m_nAsked;
    }

private:
    static constexpr int64_t DELAY_NS = 50000000;
    static constexpr int64_t MARGIN_NS = 10000000;
    static constexpr int32_t LOSES_ONE_IN = 20;

    // Ends a little before the stream, so that every answer comes while it runs.
    void Run()
    {
        std::minstd_rand random(1);
        const int64_t last = m_nCount - MARGIN_NS / m_nPeriodNs;
        for (int64_t i = 0; i < last; ++i) {
            const auto seq = static_cast<uint16_t>(m_usFirst + i);
            const std::vector<uint8_t> request = RequestDatagram(seq, 1);
            const auto asking = static_cast<int32_t>(i % LOSES_ONE_IN);
            const int64_t share = m_nPeriodNs / (m_receivers.Count() / LOSES_ONE_IN + 1);
            int64_t from = m_nStartNs + i * m_nPeriodNs;
            for (int32_t receiver = asking; receiver < m_receivers.Count(); receiver += LOSES_ONE_IN) {
                SleepUntil(from + static_cast<int64_t>(random()) % share);
                SendTo(m_receivers.Socket(receiver), request.data(), request.size(), m_requests);
                ++m_nAsked;
                from += share;
            }
        }
    }

    Receivers& m_receivers;
    const sockaddr_in m_requests;
    const int64_t m_nCount;
    const int64_t m_nPeriodNs;
    const uint16_t m_usFirst;
    const int64_t m_nStartNs;
    int64_t m_nAsked = 0; // the thread's until it has been joined
    std::thread m_thread;
};

struct LatencyFigures {
    PairedFigures median; // us, over all receivers; the baseline is a turn without requests
    PairedFigures p99;
    int64_t asked = 0;
    int64_t resent = 0;
    int64_t lost = 0;
};

void RecordLatency(
    LatencyFigures& figures, const TurnResult& quiet, const TurnResult& asking, int32_t nReceivers)
{
    constexpr double P99 = 0.99;
    figures.median.baseline.push_back(Median(quiet.anyReceiverUs));
    figures.median.measured.push_back(Median(asking.anyReceiverUs));
    figures.p99.baseline.push_back(Percentile(quiet.anyReceiverUs, P99));
    figures.p99.measured.push_back(Percentile(asking.anyReceiverUs, P99));
    figures.resent += asking.resent;
    figures.lost += asking.sent * nReceivers - asking.delivered;
}

// A proxy with its receivers on loopback and a stream to it.
struct Scene {
    Scene(const Entry& entry, int32_t nReceivers)
        : contender(entry, outlet, nReceivers),
          receivers(outlet.At(contender.DestPort())),
          stream(receivers, contender.InputPort(), PER_SECOND)
    {
    }

    ReadingOutlet outlet;
    Contender contender;
    Receivers& receivers;
    PacedStream stream;
};

// A piece of a turn in which receivers ask.
void TakeAskingPiece(LatencyFigures& figures, TurnResult& turn, Scene& scene, const sockaddr_in& requests)
{
    const auto count = static_cast<int64_t>(PIECE_S * PER_SECOND);
    Losers losers(scene.receivers, requests, scene.stream.NextSeq(), count, PER_SECOND);
    turn.Append(scene.stream.Run(PIECE_S));
    figures.asked += losers.Finish();
}

// In a control turn the same requests go to a port where nobody reads: what the requests' senders take from
// this machine's processors is no cost of the proxy.
std::string MeasureLatency(
    LatencyFigures& figures, LatencyFigures& control, const Settings& settings, const Entry& entry)
{
    constexpr int64_t WARM_UP = 200; // datagrams that the first requests can ask for
    Scene scene(entry, RECEIVERS);
    const sockaddr_in deaf = LoopbackAddress(FreePort());
    const sockaddr_in asked = LoopbackAddress(scene.contender.RequestPort());
    const UniqueFd deafSocket = BoundSocket(deaf);
    if (!settings.quick) // first touches cost page faults
        PacedStream(scene.receivers, scene.contender.InputPort(), FILL_RATE).Fill(RING_SIZE + 1024 + 100);
    scene.stream.Fill(WARM_UP);
    TurnResult quietTurn;
    TurnResult askingTurn;
    TurnResult controlTurn;
    const auto measure = [&](int round) {
        quietTurn = {};
        askingTurn = {};
        controlTurn = {};
        for (int piece = 0; piece < 3 * PiecesOf(settings.seconds); ++piece) {
            switch ((round + piece) % 3) {
            case 0:
                quietTurn.Append(scene.stream.Run(PIECE_S));
                break;
            case 1:
                TakeAskingPiece(figures, askingTurn, scene, asked);
                break;
            default:
                TakeAskingPiece(control, controlTurn, scene, deaf);
                break;
            }
        }
        if (askingTurn.delivered == 0 || askingTurn.resent == 0)
            GiveUp("no request was answered while media flowed");
    };
    Rounds rounds(settings, scene.contender.Pids());
    rounds.Repeat(measure, [&] {
        RecordLatency(figures, quietTurn, askingTurn, RECEIVERS);
        RecordLatency(control, quietTurn, controlTurn, RECEIVERS);
    });
    return rounds.Report();
}

void PrintLatency(const char* name, const LatencyFigures& figures)
{
    for (const auto& [what, paired] :
        { std::pair("median", &figures.median), std::pair("p99", &figures.p99) }) {
        printf("  %-24s %-7s %9.2f us %9.2f us %6.2f  (%.2f to %.2f)\n", name, what, Median(paired->baseline),
            Median(paired->measured), paired->MedianRatio(), paired->LowestRatio(), paired->HighestRatio());
    }
    printf("  %-24s requests %lld, retransmissions %lld, media lost %lld\n", "",
        static_cast<long long>(figures.asked), static_cast<long long>(figures.resent),
        static_cast<long long>(figures.lost));
}

} // namespace

void MeasureAsking(Bench& bench)
{
    for (const Entry& entry : Proxies(bench.settings)) {
        if (entry.kind != Entry::Kind::PROXY)
            continue;
        LatencyFigures figures;
        LatencyFigures control;
        const std::string report = MeasureLatency(figures, control, bench.settings, entry);
        printf(
            "\nMedia latency of %s over loopback, %d datagrams/s to %d receivers, each of which asks for 5 %% of "
            "the stream\n                                       without         with  ratio\n",
            entry.name.c_str(), PER_SECOND, RECEIVERS);
        PrintLatency("requests", figures);
        PrintLatency("control: to a deaf port", control);
        printf("%s\n", report.c_str());
    }
}
