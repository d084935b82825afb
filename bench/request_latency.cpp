// What requests do to the media's latency: the proxy's own binary on loopback, with and without receivers that ask.
#include <sys/socket.h>

#include <cstdio>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "support/child.h"
#include "support/command_line.h"
#include "support/figures.h"
#include "support/paced_stream.h"
#include "support/proxy_run.h"
#include "support/request_datagram.h"
#include "support/udp.h"

namespace {

constexpr int64_t NS_PER_S = 1000000000;
constexpr int32_t RING_SIZE = 4096; // the proxy's default
constexpr int FILL_RATE = 2000; // datagrams/s

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

// In a control turn the same requests go to a port where nobody reads: what the requests' senders take from
// this machine's processors is no cost of the proxy.
void MeasureLatency(LatencyFigures& figures, LatencyFigures& control, const BenchSettings& settings)
{
    constexpr int32_t RECEIVERS = 50;
    constexpr int64_t WARM_UP = 200; // datagrams that the first requests can ask for
    Receivers receivers(RECEIVERS, FreePort());
    const uint16_t input = FreePort();
    const ProxyRun proxy(receivers, input);
    const sockaddr_in deaf = LoopbackAddress(FreePort());
    const UniqueFd deafSocket = BoundSocket(deaf);
    PacedStream(receivers, input, FILL_RATE).Fill(RING_SIZE + 1024 + 100); // first touches cost page faults
    PacedStream stream(receivers, input, settings.perSecond);
    stream.Fill(WARM_UP);
    const int pieces = PiecesOf(settings.seconds);
    const auto count = static_cast<int64_t>(PIECE_S * settings.perSecond);
    const auto asking = [&](LatencyFigures& target, TurnResult& turn, const sockaddr_in& requests) {
        Losers losers(receivers, requests, stream.NextSeq(), count, settings.perSecond);
        turn.Append(stream.Run(PIECE_S));
        target.asked += losers.Finish();
    };
    for (int round = 0; round < settings.rounds; ++round) {
        TurnResult quietTurn;
        TurnResult askingTurn;
        TurnResult controlTurn;
        for (int piece = 0; piece < 3 * pieces; ++piece) {
            switch ((round + piece) % 3) {
            case 0:
                quietTurn.Append(stream.Run(PIECE_S));
                break;
            case 1:
                asking(figures, askingTurn, proxy.RequestAddress());
                break;
            default:
                asking(control, controlTurn, deaf);
                break;
            }
        }
        RecordLatency(figures, quietTurn, askingTurn, RECEIVERS);
        RecordLatency(control, quietTurn, controlTurn, RECEIVERS);
    }
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

int main(int argc, char** argv)
{
    return RunBenchmark([=] {
        const BenchSettings settings = ReadBenchSettings(argc, argv);
        printf("%d paired rounds, turns of %g s, datagrams of %zu bytes\n\n", settings.rounds,
            settings.seconds, sizeof(MediaDatagram));
        printf("Media latency, %d datagrams/s to 50 receivers, each of which asks for 5 %% of the stream\n"
               "                                    without         with  ratio\n",
            settings.perSecond);
        LatencyFigures figures;
        LatencyFigures control;
        MeasureLatency(figures, control, settings);
        PrintLatency("requests", figures);
        PrintLatency("control: to a deaf port", control);
    });
}
