#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "../support/asker.h"
#include "../support/bare_answerer.h"
#include "../support/bare_sender.h"
#include "../support/child.h"
#include "../support/contender.h"
#include "../support/feed.h"
#include "../support/figures.h"
#include "../support/outlet.h"
#include "../support/paced_stream.h"
#include "../support/udp.h"
#include "bench.h"
#include "entries.h"
#include "rounds.h"

namespace {

constexpr int64_t NS_PER_S = 1000000000;
constexpr double NS_PER_US = 1000;
constexpr int32_t RING_SIZE = 4096; // the proxy's default

constexpr int32_t RECEIVERS = 16;
constexpr Habit HABITS[] = {
    { "16 ask at once, 1 number", RECEIVERS, 1, 1000000 },
    { "16 ask at once, 10 numbers", RECEIVERS, 10, 2000000 },
    { "16 ask at once, 64 numbers", RECEIVERS, 64, 6500000 },
    { "one asks, 1 number", 1, 1, 500000 },
    { "one asks, 10 numbers", 1, 10, 500000 },
    { "one asks, 64 numbers", 1, 64, 2000000 },
};

// Calls act() once in a period, for one piece of a turn; returns how often. What a busy machine delays is not made up
// for: numbers that come again too soon are held off.
template <typename Action>
int64_t OncePerPeriod(int64_t periodNs, Action act)
{
    const auto count = static_cast<int64_t>(PIECE_S * static_cast<double>(NS_PER_S)) / periodNs;
    int64_t due = WallNs();
    for (int64_t i = 0; i < count; ++i) {
        due = std::max(due + periodNs, WallNs());
        SleepUntil(due);
        act();
    }
    return count;
}

struct Side {
    double cpuNs = 0;
    int64_t asked = 0;
    int64_t sent = 0;

    double CostNs() const { return cpuNs / static_cast<double>(sent); }
};

// One habit: a proxy whose ring is full, and a bare sender.
class AnswerBench {
public:
    AnswerBench(Outlet& outlet, const Entry& entry, const Habit& habit)
        : m_outlet(outlet),
          m_habit(habit),
          m_proxy(entry, outlet, RECEIVERS),
          m_feed(m_proxy.InputPort(), FILL_RATE, 1),
          m_asker(outlet, habit.askers, m_proxy.RequestPort()),
          m_least(OpenPort(outlet), RING_SIZE),
          m_leastAsker(outlet, habit.askers, m_least.RequestPort()),
          m_bare(outlet, habit, RING_SIZE)
    {
    }

    // Lets the proxy send and remember as many datagrams as its ring has room for, and a few more.
    void FillRing()
    {
        constexpr double FILL_S = 1.0 * (RING_SIZE + 100) / FILL_RATE;
        constexpr int TRIES = 5; // on a busy machine some may be lost before they reach the proxy
        for (int i = 0; i < TRIES; ++i) {
            const int64_t before = Delivered();
            const int64_t sent = m_feed.Run(FILL_S);
            m_nFed += sent;
            if (WaitFor(sent * RECEIVERS, [&] { return Delivered() - before; }) != sent * RECEIVERS)
                continue;
            m_usFirst = static_cast<uint16_t>(m_nFed + 1 - RING_SIZE);
            m_nPlace = 0;
            return;
        }
        GiveUp("the proxy does not get all that it is to remember");
    }

    pid_t ProxyPid() const { return m_proxy.Process().Pid(); }

    void TakePiece(Side& proxy, Side& least, Side& bare, bool proxyFirst)
    {
        if (proxyFirst)
            TakeProxyPiece(proxy);
        TakeBarePiece(bare);
        TakeLeastPiece(least);
        if (!proxyFirst)
            TakeProxyPiece(proxy);
    }

private:
    static constexpr int FILL_RATE = 4000; // datagrams/s

    static uint16_t OpenPort(Outlet& outlet)
    {
        const uint16_t port = FreePort();
        outlet.Open(RECEIVERS, port);
        return port;
    }

    int64_t Delivered() const { return m_outlet.Delivered(sizeof(MediaDatagram)); }

    void TakeProxyPiece(Side& side)
    {
        TakeAskingPiece(side, m_asker, [this] { return m_proxy.Process().CpuNs(); });
    }

    void TakeLeastPiece(Side& side)
    {
        TakeAskingPiece(side, m_leastAsker, [this] { return m_least.CpuNs(); });
    }

    template <typename CpuNs>
    void TakeAskingPiece(Side& side, Asker& asker, CpuNs cpuNs)
    {
        const int64_t cpuBefore = cpuNs();
        const int64_t before = Delivered();
        const int64_t asked = OncePerPeriod(m_habit.periodNs, [&] { AskOnce(asker); }) * m_habit.Datagrams();
        side.sent += WaitFor(asked, [&] { return Delivered() - before; });
        side.asked += asked;
        side.cpuNs += static_cast<double>(cpuNs() - cpuBefore);
    }

    void TakeBarePiece(Side& side)
    {
        const int64_t cpuBefore = m_bare.CpuNs();
        const int64_t before = m_bare.Sent();
        const int64_t wanted
            = OncePerPeriod(m_habit.periodNs, [this] { m_bare.SendOnce(); }) * m_habit.Datagrams();
        side.sent += WaitFor(wanted, [&] { return m_bare.Sent() - before; });
        side.cpuNs += static_cast<double>(m_bare.CpuNs() - cpuBefore);
    }

    // Until all that is wanted has come; what has not after half a second is lost.
    template <typename Count>
    static int64_t WaitFor(int64_t wanted, Count count)
    {
        constexpr int64_t POLL_NS = 5000000;
        constexpr int POLLS = 100;
        int64_t got = count();
        for (int i = 0; i < POLLS && got < wanted; ++i) {
            SleepUntil(WallNs() + POLL_NS);
            got = count();
        }
        return got;
    }

    void AskOnce(Asker& asker)
    {
        for (int32_t i = 0; i < m_habit.askers; ++i)
            asker.Ask(i, static_cast<uint16_t>(m_usFirst + m_nPlace), m_habit.numbers);
        m_nPlace += m_habit.numbers;
        if (m_nPlace + m_habit.numbers > RING_SIZE)
            m_nPlace = 0;
    }

    Outlet& m_outlet;
    const Habit m_habit;
    Contender m_proxy;
    Feed m_feed;
    Asker m_asker;
    BareAnswerer m_least;
    Asker m_leastAsker;
    BareSender m_bare;
    int64_t m_nFed = 0; // datagrams; the last one has this number
    uint16_t m_usFirst = 0; // the oldest number in the ring
    int32_t m_nPlace = 0;
};

// What one habit gave, one entry a round: for each datagram, in us.
struct Costs {
    std::vector<double> bare;
    std::vector<double> least;
    std::vector<double> proxy;
    int64_t unanswered = 0;
};

void PrintBeside(const std::vector<double>& bare, const std::vector<double>& other)
{
    const PairedFigures figures { bare, other };
    printf(" %6.2f us %5.2f (%.2f to %.2f)", Median(other), figures.MedianRatio(), figures.LowestRatio(),
        figures.HighestRatio());
}

void AddTarget(Bench& bench, const Entry& entry, const Habit& habit, const Costs& costs)
{
    constexpr double BOUND_OF_ONE = 1.5;
    constexpr double BOUND_OF_MANY = 0.4;
    constexpr uint16_t MANY = 64;
    if (habit.numbers == 1 || habit.numbers == MANY)
        bench.targets.Add("resent datagram, " + std::string(habit.name) + ", " + entry.name,
            Targets::Kind::AT_MOST, habit.numbers == 1 ? BOUND_OF_ONE : BOUND_OF_MANY,
            PairedFigures { costs.bare, costs.proxy });
}

void MeasureHabit(Bench& bench, const Entry& entry, const Habit& habit)
{
    AnswerBench answers(bench.outlet, entry, habit);
    Side proxy;
    Side least;
    Side bare;
    Costs costs;
    const auto measure = [&](int round) {
        proxy = {};
        least = {};
        bare = {};
        answers.FillRing();
        for (int piece = 0; piece < PiecesOf(bench.settings.seconds); ++piece)
            answers.TakePiece(proxy, least, bare, (round + piece) % 2 == 0);
        if (proxy.sent == 0 || least.sent == 0 || bare.sent == 0)
            GiveUp("no request was answered");
    };
    const auto keep = [&] {
        costs.bare.push_back(bare.CostNs() / NS_PER_US);
        costs.least.push_back(least.CostNs() / NS_PER_US);
        costs.proxy.push_back(proxy.CostNs() / NS_PER_US);
        costs.unanswered += proxy.asked - proxy.sent;
    };
    if (!bench.settings.quick)
        measure(0); // first touches cost page faults
    Rounds rounds(bench.settings, { answers.ProxyPid() });
    rounds.Repeat(measure, keep);
    printf("  %-27s %6.2f us", habit.name, Median(costs.bare));
    PrintBeside(costs.bare, costs.least);
    PrintBeside(costs.bare, costs.proxy);
    printf(" %6lld\n%s\n", static_cast<long long>(costs.unanswered), rounds.Report().c_str());
    AddTarget(bench, entry, habit, costs);
}

} // namespace

void MeasureRequests(Bench& bench)
{
    for (const Entry& entry : Proxies(bench.settings)) {
        if (entry.kind != Entry::Kind::PROXY)
            continue;
        printf("\nCPU per retransmitted datagram: ratio to bare sendto calls\n"
               "  %-27s    sendto       wait, read, sendto %29s lost\n",
            "", entry.name.c_str());
        for (const Habit& habit : HABITS) {
            MeasureHabit(bench, entry, habit);
            if (bench.settings.quick)
                break;
        }
    }
}
