#include "run.h"

#include <poll.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace {

constexpr double STEP_SECONDS = 0.001;
constexpr double SAMPLE_SECONDS = 0.5;
constexpr double CYCLE_SECONDS = 20.0; // of which first few receivers are there, then all
constexpr double FEW_SECONDS = 4.0;
constexpr double NO_SILENCE_BEFORE_END = 11.0; // they would still be there with the few
constexpr int32_t FEW = 4; // receivers that come and go
constexpr int32_t MANY = 25; // the others are on their way
constexpr int32_t CONFIGURED = 4;
constexpr uint8_t CONFIGURED_STAYER = 3;
constexpr uint8_t FENCE = 50; // numbers of receivers
constexpr uint8_t BLOCKER = 51;
constexpr uint8_t FIRST_CONFIGURED = 60;
constexpr uint32_t FIRST_ID = 0x00C0FFEE;

// Places of guests: without an ID; with one; with one, two at an address.
constexpr int32_t WITHOUT_ID = 24;
constexpr int32_t ALONE = 32;

} // namespace

void Run::Rates::Add(double rate)
{
    best = std::max(best, rate);
    sum += rate;
    ++seconds;
}

Run::Run(const Places& places, const Shape& shape)
    : m_shape(shape),
      m_source(places.input, places.perSecond),
      m_control(places.control),
      m_world({ places.ping, places.request }, m_source, m_control, places.seed)
{
    m_world.longestStaySeconds = shape.longestStaySeconds;
    UseLargeMedia(shape.isLarge);
    MakeReceivers(places);
}

// Learnt ones each have a port of their own, configured ones all have the proxy's.
void Run::MakeReceivers(const Places& places)
{
    const uint16_t port = ntohs(places.ping.sin_port);
    const auto take = [this](auto* made) {
        m_receivers.emplace_back(made);
        return made;
    };
    for (uint8_t i = 1; i <= m_shape.stayers; ++i) {
        const uint32_t streamId = i % 2 != 0 ? NO_ID : FIRST_ID - i;
        const uint16_t ownPort = i == CONFIGURED_STAYER ? port : 0;
        m_stayers.push_back(take(new Stayer(m_world, i, Loopback(1, i, ownPort), streamId)));
    }
    m_pFence = take(new Fence(m_world, FENCE, Loopback(2, 1, 0), m_shape.reportSeconds));
    if (!places.namespaceOfBlocking.empty()) {
        const InNamespace there(places.namespaceOfBlocking);
        m_pBlocker = take(new Blocker(m_world, BLOCKER, places.blocking));
    }
    for (int32_t i = 0; i < CONFIGURED; ++i) {
        const auto index = static_cast<uint8_t>(FIRST_CONFIGURED + i);
        m_configured.push_back(take(new Configured(m_world, index, Loopback(3, index, port))));
    }
    for (int32_t i = 0; i < m_shape.guests; ++i) {
        const auto host = static_cast<uint8_t>(1 + (i < ALONE ? i : ALONE + (i - ALONE) / 2));
        const uint32_t streamId = i < WITHOUT_ID ? NO_ID : FIRST_ID + static_cast<uint32_t>(i);
        m_guests.push_back(take(new Guest(m_world, *m_pFence, i, i < ALONE, Loopback(4, host, 0), streamId)));
    }
    std::shuffle(m_guests.begin(), m_guests.end(), std::minstd_rand(places.seed));
}

void Run::Stage(double seconds, double patience)
{
    bool ignored = false;
    m_pFence->Rest(false);
    const double latestBegin = Now() + patience;
    const uint64_t mark = m_pFence->Mark();
    while (!m_pFence->Passed(mark) && Now() < latestBegin) // who stays has pinged then
        Turn(-1, &ignored);
    if (Now() >= latestBegin)
        return Fault("the proxy did not take the pings of who stays");
    m_source.Start();
    const double began = Now();
    while (Now() - began < seconds) {
        Fill(Now() - began);
        Turn(-1, &ignored);
        Sample(Now());
    }
    m_world.wanted = 0;
    m_bSampleIsGood = false;
    const double limit = Now() + patience;
    while (!IsEmpty() && Now() < limit)
        Turn(-1, &ignored);
    m_source.Stop();
    m_pFence->Rest(true);
    while (!IsComplete() && Now() < limit)
        Turn(-1, &ignored);
    if (Now() >= limit)
        Fault("the end was not reached: everybody left %d, everything arrived %d", IsEmpty(), IsComplete());
}

void Run::Idle(int descriptor)
{
    for (bool isReadable = false; !isReadable;)
        Turn(descriptor, &isReadable);
}

void Run::Fill(double fromBegin)
{
    if (!m_shape.comesAndGoes) {
        m_world.wanted = m_shape.guests;
        Guest::AllowSilence(true);
        return;
    }
    const double inCycle = fromBegin - CYCLE_SECONDS * static_cast<int>(fromBegin / CYCLE_SECONDS);
    m_world.wanted = inCycle < FEW_SECONDS ? FEW_GUESTS : m_shape.guests;
    Guest::AllowSilence(inCycle >= FEW_SECONDS && inCycle < CYCLE_SECONDS - NO_SILENCE_BEFORE_END);
}

void Run::Turn(int descriptor, bool* isReadable)
{
    std::vector<pollfd> wanted { { descriptor, POLLIN, 0 } };
    for (const auto& receiver : m_receivers)
        wanted.push_back({ receiver->Socket(), POLLIN, 0 });
    (void)poll(wanted.data(), wanted.size(), 1);
    for (size_t i = 0; i < m_receivers.size(); ++i) {
        if (wanted[1 + i].revents != 0)
            (void)m_receivers[i]->Read();
    }
    Confirm();
    *isReadable = wanted[0].revents != 0;
    const double now = Now();
    if (now < m_nextStep)
        return;
    m_nextStep = now + STEP_SECONDS;
    m_control.Poll();
    for (const auto& receiver : m_receivers)
        receiver->Step(now);
}

void Run::Confirm()
{
    uint64_t newest = UINT64_MAX;
    uint64_t oldestMissing = UINT64_MAX;
    for (const Stayer* stayer : m_stayers) {
        newest = std::min(newest, stayer->Newest());
        oldestMissing = std::min(oldestMissing, stayer->OldestMissing());
    }
    m_source.Confirm(newest, oldestMissing);
}

void Run::Sample(double now)
{
    const auto there = static_cast<int32_t>(std::count_if(
        m_guests.begin(), m_guests.end(), [](const Guest* guest) { return guest->IsServed(); }));
    const bool areFew = m_world.wanted == FEW_GUESTS;
    m_bSampleIsGood &= !m_world.isBlocked && (areFew ? there <= FEW : there >= MANY);
    if (now - m_sampleBegan < SAMPLE_SECONDS)
        return;
    if (m_bSampleIsGood && !areFew)
        m_nManySum += static_cast<uint64_t>(there);
    if (m_bSampleIsGood)
        (areFew ? m_few : m_many)
            .Add(static_cast<double>(m_source.Sent() - m_nSampleSent) / (now - m_sampleBegan));
    m_sampleBegan = now;
    m_nSampleSent = m_source.Sent();
    m_bSampleIsGood = true;
}

bool Run::IsEmpty() const
{
    const auto isAway = [](const auto* receiver) { return receiver->IsAway(); };
    return (!m_pBlocker || m_pBlocker->IsAway()) && std::all_of(m_guests.begin(), m_guests.end(), isAway)
        && std::all_of(m_configured.begin(), m_configured.end(), isAway);
}

bool Run::IsComplete() const
{
    return m_pFence->IsAway() && m_source.Confirmed() == m_source.Sent()
        && std::all_of(m_stayers.begin(), m_stayers.end(),
            [this](const Stayer* stayer) { return stayer->OldestMissing() > m_source.Sent(); });
}

void Run::PrintFigures()
{
    const auto print = [](const char* name, uint64_t value) { printf("%s=%" PRIu64 "\n", name, value); };
    const Tally& tally = m_world.tally;
    uint64_t recovered = 0;
    uint64_t fewestJoins = UINT64_MAX;
    for (const Stayer* stayer : m_stayers)
        recovered += stayer->Recovered();
    for (const Guest* guest : m_guests)
        fewestJoins = std::min(fewestJoins, guest->Joins());
    print("SENT", m_source.Sent() - Source::FIRST_NUMBER + 1);
    print("DATAGRAMS", tally.datagrams);
    print("FIRST_SENDINGS", tally.firstSendings);
    print("RESENDS", tally.resends);
    print("ECHOES", tally.echoes);
    print("STOP_MESSAGES", tally.stopMessages);
    print("REQUESTS", tally.requests);
    print("PINGS", tally.pings);
    print("JOINS", tally.joins);
    print("FEWEST_JOINS", fewestJoins);
    print("STOPS", tally.stops);
    print("DELETES", tally.deletes);
    print("MOVES", tally.moves);
    print("EXPIRIES", tally.expiries);
    print("ADDS", tally.adds);
    print("BLOCKS", tally.blocks);
    print("LOST_ON_PURPOSE", tally.lostOnPurpose);
    print("RECOVERED", recovered);
    print("SLOWEST_COMMAND_MS", static_cast<uint64_t>(m_control.SlowestSeconds() * 1000));
    print("RATE_FEW_BEST", static_cast<uint64_t>(m_few.best));
    print("RATE_FEW_MEAN", static_cast<uint64_t>(m_few.Mean()));
    print("RATE_MANY_BEST", static_cast<uint64_t>(m_many.best));
    print("MANY", m_nManySum / std::max<uint64_t>(m_many.seconds, 1));
    print("RATE_MANY_MEAN", static_cast<uint64_t>(m_many.Mean()));
    print("FAULTS", Faults());
}
