#include "field.h"

#include <algorithm>
#include <cstdio>

#include "../support/media.h"
#include "../support/paced_stream.h"

void Field::Add(const Entry& entry, int32_t nReceivers, int burst)
{
    Lane lane;
    lane.contender = std::make_unique<Contender>(entry, m_outlet, nReceivers);
    lane.feed = std::make_unique<Feed>(lane.contender->InputPort(), m_settings.perSecond, burst);
    if (!m_settings.quick)
        UseWholePool(entry, *lane.contender);
    m_lanes.push_back(std::move(lane));
    KeepAllKnown();
}

void Field::MeasureCpu()
{
    Rounds rounds(m_settings, Pids());
    std::vector<Turn> turns;
    if (!m_settings.quick)
        (void)OneRound(0); // first touches cost page faults
    rounds.Repeat([&](int round) { turns = OneRound(round); }, [&] { Record(turns); });
    m_report = rounds.Report();
}

void Field::PrintLanes() const
{
    constexpr double NS_PER_US = 1000;
    for (const Lane& lane : m_lanes) {
        const PairedFigures ratios = Ratios(lane);
        printf("  %-44s %8.2f us %6.2f  (%.2f to %.2f)", lane.contender->Name().c_str(),
            Median(lane.cpuNs) / NS_PER_US, ratios.MedianRatio(), ratios.LowestRatio(),
            ratios.HighestRatio());
        if (lane.lost != 0)
            printf("  lost %lld", static_cast<long long>(lane.lost));
        printf("\n");
    }
}

std::vector<pid_t> Field::Pids() const
{
    std::vector<pid_t> pids;
    for (const Lane& lane : m_lanes) {
        for (const pid_t pid : lane.contender->Pids())
            pids.push_back(pid);
    }
    return pids;
}

void Field::KeepAllKnown()
{
    for (const Lane& lane : m_lanes)
        lane.contender->StayKnown();
}

// A turn of each, cut into pieces that they take in alternation; the order changes with the pieces.
std::vector<Field::Turn> Field::OneRound(int round)
{
    std::vector<Turn> turns(m_lanes.size());
    for (int piece = 0; piece < PiecesOf(m_settings.seconds); ++piece) {
        for (size_t i = 0; i < m_lanes.size(); ++i) {
            const size_t which = (i + static_cast<size_t>(round + piece)) % m_lanes.size();
            KeepAllKnown();
            TakePiece(turns[which], m_lanes[which]);
        }
    }
    return turns;
}

void Field::TakePiece(Turn& turn, Lane& lane)
{
    constexpr int64_t LATEST_NS = 2000000000; // a link keeps its packets for a while
    lane.contender->Work();
    const int64_t cpuBefore = lane.contender->Process().CpuNs();
    const int64_t before = m_outlet.Delivered(sizeof(MediaDatagram));
    const int64_t sent = lane.feed->Run(std::min(PIECE_S, m_settings.seconds));
    turn.delivered += AwaitDelivery(m_outlet, before, sent * lane.contender->ReceiverCount(), LATEST_NS);
    turn.cpuNs += lane.contender->Process().CpuNs() - cpuBefore;
    turn.sent += sent;
    lane.contender->Rest();
}

void Field::Record(const std::vector<Turn>& turns)
{
    for (size_t i = 0; i < turns.size(); ++i) {
        const Turn& turn = turns[i];
        Lane& lane = m_lanes[i];
        if (turn.delivered == 0)
            GiveUp(lane.contender->Name() + " delivered nothing");
        lane.cpuNs.push_back(static_cast<double>(turn.cpuNs) / static_cast<double>(turn.delivered));
        lane.lost += turn.sent * lane.contender->ReceiverCount() - turn.delivered;
    }
}

int64_t AwaitDelivery(Outlet& outlet, int64_t before, int64_t delivered, int64_t latestNs)
{
    constexpr int64_t POLL_NS = 5000000;
    const int64_t end = WallNs() + latestNs;
    for (;;) {
        const int64_t got = outlet.Delivered(sizeof(MediaDatagram)) - before;
        if (got >= delivered || WallNs() >= end)
            return got;
        SleepUntil(WallNs() + POLL_NS);
    }
}

void UseWholePool(const Entry& entry, Contender& contender)
{
    constexpr int PER_SECOND = 5000;
    constexpr double POOL_ROUND = 4096 + 1024 + 100; // datagrams after which every buffer has been used
    if (entry.kind != Entry::Kind::PROXY && entry.kind != Entry::Kind::LEARNT)
        return;
    (void)Feed(contender.InputPort(), PER_SECOND, 1).Run(POOL_ROUND / PER_SECOND);
    contender.StayKnown();
}
