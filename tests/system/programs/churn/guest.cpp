#include "guest.h"

namespace {

constexpr Window WINDOWS[] = { { 2, 200, 0 }, { 2, 200, 0 }, { 1, 50, 10 }, { 3, 400, 0 } };
constexpr double JOIN_PING_SECONDS = 0.1;
constexpr double PING_SECONDS = 0.6;
constexpr double SHORTEST_STAY_SECONDS = 0.02;
constexpr double LONGEST_AWAY = 0.03; // of the longest stay
constexpr double SHORTEST_ASK_SECONDS = 0.01;
constexpr double LONGEST_ASK_SECONDS = 0.05;
constexpr double ECHO_SECONDS = 0.5;
constexpr uint32_t MOST_LISTED = 12;
constexpr uint32_t RECENT = 1500; // numbers: far from where the proxy's buffers come round
constexpr uint64_t OLD_FROM = 6000; // surely no more in the proxy's ring of 4096 ...
constexpr uint32_t OLD_RANGE = 24000; // ... and not so old that another packet of now has the same lower bits
constexpr uint32_t AHEAD = 50;
constexpr int STOP_MESSAGES = 5;
constexpr int32_t MOST_DELETES_OPEN = 2; // each takes the proxy 100 ms
constexpr int32_t FIRST_GUEST = 100;

} // namespace

bool Guest::s_bMayBeSilent;

Guest::Guest(
    World& world, Fence& fence, int32_t place, bool isAlone, const sockaddr_in& address, uint32_t streamId)
    : Receiver(world, static_cast<uint8_t>(FIRST_GUEST + place), address, streamId),
      m_fence(fence),
      m_nPlace(place),
      m_bAlone(isAlone),
      m_bDeletable(isAlone && streamId == NO_ID)
{
}

void Guest::Step(double now)
{
    switch (m_state) {
    case State::Away:
        if (!IsWanted() || now < m_nextStep)
            return;
        Come();
        BeLoose(false);
        m_nLooseMark = 0;
        m_state = State::Joining;
        [[fallthrough]];
    case State::Joining:
        if (!IsWanted())
            Leave();
        else if (now >= m_nextPing && m_world.MayPing()) {
            Ping();
            m_nextPing = now + JOIN_PING_SECONDS;
        }
        return;
    case State::Served:
        return StepOfServed(now);
    case State::BeingDeleted:
        if (m_bPingsOn && now >= m_nextPing && m_world.MayPing()) {
            Ping();
            m_nextPing = now + JOIN_PING_SECONDS;
        }
        return;
    case State::Leaving:
        if (m_fence.Passed(m_nMark)) {
            HaveGone();
            BeAway();
        }
        return;
    case State::Silent:
        return StepOfSilence();
    }
}

void Guest::OnFirst(uint64_t /*number*/)
{
    if (m_state != State::Joining)
        return;
    m_state = State::Served;
    m_nextStep = Now() + m_world.DrawSeconds(SHORTEST_STAY_SECONDS, m_world.longestStaySeconds);
    ++m_nJoins;
    ++m_world.tally.joins;
}

void Guest::StepOfServed(double now)
{
    if (!IsWanted())
        return Leave();
    if (m_nLooseMark != 0 && m_fence.Passed(m_nLooseMark)) {
        m_nLooseMark = 0;
        Come();
        BeLoose(false);
    }
    if (now >= m_nextPing && m_world.MayPing()) {
        Ping();
        m_nextPing = now + PING_SECONDS;
    }
    if (now >= m_nextAsk && HasBegun())
        AskForSomething(now);
    if (now >= m_nextStep)
        Act(now);
}

void Guest::Act(double now)
{
    m_nextStep = now + m_world.DrawSeconds(SHORTEST_STAY_SECONDS, m_world.longestStaySeconds);
    const uint32_t drawn = m_world.Draw(100);
    if (!m_world.MayPing())
        return;
    if (drawn < 25) {
        Move();
        Ping();
        ++m_world.tally.moves;
    } else if (drawn < 33 && s_bMayBeSilent && m_bAlone && m_nLooseMark == 0) {
        FallSilent();
    } else if (drawn < 70 && m_bDeletable && m_world.deletesOpen < MOST_DELETES_OPEN) {
        BeDeleted(drawn < 45);
    } else {
        Leave();
    }
}

// Some that it has, some twice in one list, some that are no more there, some that are not there yet.
void Guest::AskForSomething(double now)
{
    m_nextAsk = now + m_world.DrawSeconds(SHORTEST_ASK_SECONDS, LONGEST_ASK_SECONDS);
    if (IsEchoOpen() && now < m_echoBy)
        return;
    const uint64_t newest = Newest();
    std::vector<uint64_t> numbers;
    for (uint32_t left = 1 + m_world.Draw(MOST_LISTED); left > 0; --left) {
        const uint32_t drawn = m_world.Draw(100);
        if (drawn < 60)
            numbers.push_back(newest - m_world.Draw(RECENT));
        else if (drawn < 75 && !numbers.empty())
            numbers.push_back(numbers.back());
        else if (drawn < 90)
            numbers.push_back(newest - OLD_FROM - m_world.Draw(OLD_RANGE));
        else
            numbers.push_back(newest + m_world.Draw(AHEAD));
    }
    const Window window = WINDOWS[m_world.Draw(std::size(WINDOWS))];
    Ask(numbers, window);
    if (m_world.OneIn(3))
        Ask(numbers, window);
    Echo();
    m_echoBy = now + ECHO_SECONDS;
}

void Guest::Leave()
{
    if (!m_world.MayPing())
        return;
    BeginLeave();
    SendStop();
    m_nMark = m_fence.Mark();
    m_state = State::Leaving;
    ++m_world.tally.stops;
}

// What it pinged before may be carried out after the command and bring it back, with a gap. Pinging on, it comes
// back for good; otherwise it sends a stop message behind the command.
void Guest::BeDeleted(bool pingsOn)
{
    ++m_world.tally.deletes;
    ++m_world.deletesOpen;
    m_state = State::BeingDeleted;
    m_bPingsOn = pingsOn;
    ExpectStops(STOP_MESSAGES);
    if (!pingsOn)
        BeginLeave();
    BeLoose(true);
    m_world.control.Post("Delete " + AddressText(), [this](const std::string& /*reply*/) {
        --m_world.deletesOpen;
        m_nLooseMark = m_bPingsOn ? m_fence.Mark() : 0;
        m_state = m_bPingsOn ? State::Served : State::Leaving;
        if (m_bPingsOn)
            return;
        SendStop();
        m_nMark = m_fence.Mark();
    });
}

void Guest::FallSilent()
{
    m_state = State::Silent;
    m_nMark = m_fence.Mark();
    m_nReportSeen = m_fence.Reports();
}

void Guest::StepOfSilence()
{
    if (!m_fence.Passed(m_nMark) || m_fence.Reports() == m_nReportSeen)
        return;
    m_nReportSeen = m_fence.Reports();
    if (m_fence.Listed().count(AddressText()) != 0)
        return DueBefore(m_fence.FannedOutBefore());
    HaveGone();
    ++m_world.tally.expiries;
    BeAway();
}

void Guest::BeAway()
{
    m_state = State::Away;
    m_nextStep = Now() + m_world.DrawSeconds(0, LONGEST_AWAY * m_world.longestStaySeconds);
    m_nextPing = 0;
}
