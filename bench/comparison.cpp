// The proxy beside the least that can be done, beside what each technique of the kernel's gives and beside other
// programs, all under the same traffic in the same rounds.
#include <sys/types.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/contender.h"
#include "support/feed.h"
#include "support/figures.h"
#include "support/machine_load.h"
#include "support/media.h"
#include "support/outlet.h"
#include "support/paced_stream.h"

namespace {

struct Settings {
    int rounds = 7;
    double seconds = 1; // a turn
    int perSecond = 2000;
    double quietBelow = 0.15; // processors' worth of other use in a round that counts
    bool loopback = false;
    bool floorsToo = true;
    std::vector<int32_t> receivers { 1, 10, 50 };
    std::vector<int> bursts { 1, 32 };
    std::vector<std::string> proxies;
};

constexpr char USAGE[]
    = "Usage: comparison [--rounds N] [--seconds N] [--rate DATAGRAMS_PER_S] [--receivers N] [--burst N]\n"
      "                  [--proxy PATH]... [--no-floors] [--loopback] [--quiet-below PROCESSORS]";

Settings ReadSettings(int argc, char** argv)
{
    Settings settings;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--loopback") {
            settings.loopback = true;
            continue;
        }
        if (name == "--no-floors") {
            settings.floorsToo = false;
            continue;
        }
        if (i + 1 == argc)
            GiveUp(USAGE);
        const char* text = argv[++i];
        const double value = std::strtod(text, nullptr);
        if (name == "--proxy")
            settings.proxies.emplace_back(text);
        else if (value <= 0)
            GiveUp(USAGE);
        else if (name == "--rounds")
            settings.rounds = static_cast<int>(value);
        else if (name == "--seconds")
            settings.seconds = value;
        else if (name == "--rate")
            settings.perSecond = static_cast<int>(value);
        else if (name == "--receivers")
            settings.receivers = { static_cast<int32_t>(value) };
        else if (name == "--burst")
            settings.bursts = { static_cast<int>(value) };
        else if (name == "--quiet-below")
            settings.quietBelow = value;
        else
            GiveUp(USAGE);
    }
    if (settings.proxies.empty())
        settings.proxies.emplace_back(TX_PROXY_BIN);
    return settings;
}

// The first entry is B, which all others are compared with.
std::vector<Entry> Entries(const Settings& settings)
{
    const std::string floors = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "floors";
    const auto floor = [&](const char* name, std::vector<std::string> words) {
        return Entry { name, Entry::Kind::FLOOR, floors, std::move(words) };
    };
    std::vector<Entry> entries { floor("B: one thread, recvfrom, N sendto", { "--threads", "1" }) };
    for (const std::string& path : settings.proxies) {
        const std::string which = settings.proxies.size() > 1 ? " " + path : "";
        entries.push_back({ "tx_proxy -a" + which, Entry::Kind::PROXY, path, {} });
        entries.push_back({ "tx_proxy, learnt streams" + which, Entry::Kind::LEARNT, path, {} });
    }
    if (settings.floorsToo) {
        entries.push_back(floor("two threads, plain", {}));
        entries.push_back(floor("two threads, connected", { "--send", "connected" }));
        entries.push_back(floor("two threads, sendmmsg", { "--send", "together" }));
        entries.push_back(floor("trains of 32", { "--train", "32", "--receive", "many" }));
        entries.push_back(floor(
            "trains of 32, connected", { "--train", "32", "--receive", "many", "--send", "connected" }));
        entries.push_back(
            floor("trains of 32, sendmmsg", { "--train", "32", "--receive", "many", "--send", "together" }));
    }
    return entries;
}

struct Turn {
    int64_t cpuNs = 0;
    int64_t sent = 0;
    int64_t delivered = 0;
};

struct Column {
    std::unique_ptr<Contender> contender;
    std::unique_ptr<Feed> feed;
    std::vector<double> cpuNs; // per delivered datagram, one entry a round
    int64_t lost = 0;
};

void TakePiece(Turn& turn, Column& column, const Outlet& outlet, int32_t nReceivers)
{
    constexpr int64_t POLL_NS = 5000000;
    constexpr int POLLS = 100;
    const int64_t cpuBefore = column.contender->Process().CpuNs();
    const int64_t before = outlet.Delivered(sizeof(MediaDatagram));
    const int64_t sent = column.feed->Run(PIECE_S);
    int64_t delivered = 0;
    for (int i = 0; i < POLLS && delivered < sent * nReceivers; ++i) {
        SleepUntil(WallNs() + POLL_NS);
        delivered = outlet.Delivered(sizeof(MediaDatagram)) - before;
    }
    turn.cpuNs += column.contender->Process().CpuNs() - cpuBefore;
    turn.sent += sent;
    turn.delivered += delivered;
}

class CpuComparison {
public:
    CpuComparison(const Settings& settings, Outlet& outlet, int32_t nReceivers, int burst)
        : m_settings(settings),
          m_outlet(outlet),
          m_nReceivers(nReceivers),
          m_nBurst(burst)
    {
        for (const Entry& entry : Entries(settings)) {
            Column column;
            column.contender = std::make_unique<Contender>(entry, outlet, nReceivers);
            column.feed = std::make_unique<Feed>(column.contender->InputPort(), settings.perSecond, burst);
            m_columns.push_back(std::move(column));
            KeepAllKnown();
        }
    }

    void Run()
    {
        constexpr int TRIES_A_ROUND = 3;
        std::vector<pid_t> pids;
        for (const Column& column : m_columns)
            pids.push_back(column.contender->Process().Pid());
        LoadMeter meter(pids);
        (void)OneRound(0); // first touches cost page faults
        for (int tries = 0; m_nRounds < m_settings.rounds && tries < TRIES_A_ROUND * m_settings.rounds;
             ++tries) {
            meter.Begin();
            const std::vector<Turn> turns = OneRound(tries);
            const double others = meter.Others();
            // When the tries come to an end, busy rounds are better than none; the table says so.
            const int left = TRIES_A_ROUND * m_settings.rounds - tries;
            const bool mustCount = left <= m_settings.rounds - m_nRounds;
            if (others > m_settings.quietBelow && !mustCount) {
                ++m_nRejected;
                continue;
            }
            m_nBusy += others > m_settings.quietBelow ? 1 : 0;
            m_others.push_back(others);
            Record(turns);
        }
    }

    void Print() const
    {
        constexpr double NS_PER_US = 1000;
        printf("\nCPU per delivered datagram, %d receiver(s), %d datagrams/s, %s\n", m_nReceivers,
            m_settings.perSecond,
            m_nBurst == 1 ? "evenly" : ("in bursts of " + std::to_string(m_nBurst)).c_str());
        for (const Column& column : m_columns) {
            const PairedFigures figures { m_columns.front().cpuNs, column.cpuNs };
            printf("  %-40s %8.2f us %6.2f  (%.2f to %.2f)", column.contender->Name().c_str(),
                Median(column.cpuNs) / NS_PER_US, figures.MedianRatio(), figures.LowestRatio(),
                figures.HighestRatio());
            if (column.lost != 0)
                printf("  lost %lld", static_cast<long long>(column.lost));
            printf("\n");
        }
        printf(
            "  other use of the machine: %.2f processors (median), %d round(s) rejected, %d busy round(s) counted\n",
            Median(m_others), m_nRejected, m_nBusy);
        (void)fflush(stdout);
    }

private:
    void KeepAllKnown()
    {
        for (const Column& column : m_columns)
            column.contender->StayKnown();
    }

    // A turn of each, cut into pieces that they take in alternation; the order changes with the pieces.
    std::vector<Turn> OneRound(int round)
    {
        std::vector<Turn> turns(m_columns.size());
        for (int piece = 0; piece < PiecesOf(m_settings.seconds); ++piece) {
            for (size_t i = 0; i < m_columns.size(); ++i) {
                const size_t which = (i + static_cast<size_t>(round + piece)) % m_columns.size();
                KeepAllKnown();
                TakePiece(turns[which], m_columns[which], m_outlet, m_nReceivers);
            }
        }
        return turns;
    }

    void Record(const std::vector<Turn>& turns)
    {
        ++m_nRounds;
        for (size_t i = 0; i < turns.size(); ++i) {
            const Turn& turn = turns[i];
            if (turn.delivered == 0)
                GiveUp(m_columns[i].contender->Name() + " delivered nothing");
            m_columns[i].cpuNs.push_back(
                static_cast<double>(turn.cpuNs) / static_cast<double>(turn.delivered));
            m_columns[i].lost += turn.sent * m_nReceivers - turn.delivered;
        }
    }

    const Settings& m_settings;
    Outlet& m_outlet;
    const int32_t m_nReceivers;
    const int m_nBurst;
    std::vector<Column> m_columns;
    std::vector<double> m_others;
    int m_nRounds = 0;
    int m_nRejected = 0;
    int m_nBusy = 0; // rounds that were counted though the machine was busy
};

std::unique_ptr<Outlet> MakeOutlet(const Settings& settings)
{
    if (settings.loopback)
        return MakeLoopbackOutlet();
    std::string why;
    std::unique_ptr<Outlet> outlet = MakeDeviceOutlet(why);
    if (outlet == nullptr)
        GiveUp(why + "; --loopback needs neither");
    return outlet;
}

} // namespace

int main(int argc, char** argv)
{
    return RunBenchmark([=] {
        const Settings settings = ReadSettings(argc, argv);
        const std::unique_ptr<Outlet> outlet = MakeOutlet(settings);
        printf(
            "%s\n%d rounds, turns of %g s, datagrams of %zu bytes; ratio to B, median and range of the rounds\n",
            outlet->Description().c_str(), settings.rounds, settings.seconds, sizeof(MediaDatagram));
        for (const int burst : settings.bursts) {
            for (const int32_t nReceivers : settings.receivers) {
                CpuComparison comparison(settings, *outlet, nReceivers, burst);
                comparison.Run();
                comparison.Print();
            }
        }
    });
}
