#include "blocker.h"

#include <algorithm>

namespace {

constexpr double APART_SECONDS = 3.0;
constexpr double GIVE_UP_SECONDS = 10.0;
constexpr double STANDSTILL_SECONDS = 0.15;
constexpr double HOLD_SECONDS = 0.2;
constexpr int STOP_MESSAGES = 5; // most find no room

} // namespace

Blocker::Blocker(World& world, uint8_t index, const sockaddr_in& address)
    : Receiver(world, index, address, NO_ID)
{
    BeLoose(true);
}

void Blocker::Step(double now)
{
    switch (m_state) {
    case State::Away:
        if (m_world.wanted > 0 && now >= m_nextStep)
            BeAdded();
        return;
    case State::Added:
        return Watch(now);
    case State::Holding:
        if (now >= m_nextStep)
            BeDeleted(now);
        return;
    case State::BeingDeleted:
        return;
    }
}

void Blocker::BeAdded()
{
    m_state = State::Added;
    m_nextStep = m_movedAt = Now() + GIVE_UP_SECONDS;
    m_world.isBlocked = true;
    m_world.control.Post("Add " + AddressText(), [this](const std::string& /*reply*/) { m_movedAt = Now(); });
}

void Blocker::Watch(double now)
{
    if (now >= m_nextStep)
        return BeDeleted(now);
    if (m_nConfirmed != m_world.source.Confirmed()) {
        m_nConfirmed = m_world.source.Confirmed();
        m_movedAt = std::max(m_movedAt, now);
    } else if (now - m_movedAt > STANDSTILL_SECONDS) {
        ++m_world.tally.blocks;
        m_state = State::Holding;
        m_nextStep = now + HOLD_SECONDS;
    }
}

void Blocker::BeDeleted(double now)
{
    m_state = State::BeingDeleted;
    ExpectStops(STOP_MESSAGES);
    m_world.control.Post("Delete " + AddressText(), [this](const std::string& /*reply*/) {
        m_world.isBlocked = false;
        m_state = State::Away;
    });
    m_nextStep = now + APART_SECONDS;
}
