#include "configured.h"

namespace {

constexpr double LONGEST = 0.7; // of the longest stay of others
constexpr int STOP_MESSAGES = 5;

} // namespace

Configured::Configured(World& world, uint8_t index, const sockaddr_in& address)
    : Receiver(world, index, address, NO_ID)
{
}

void Configured::Step(double now)
{
    const bool isWanted = m_world.wanted > 0;
    if (m_state == State::Away && isWanted && now >= m_nextStep)
        BeAdded();
    else if (m_state == State::Served && (!isWanted || now >= m_nextStep))
        BeDeleted();
}

// A full table takes nobody in while somebody blocks, and the reply does not say so.
void Configured::BeAdded()
{
    m_state = State::BeingAdded;
    Come();
    m_world.control.Post("Add " + AddressText(), [this](const std::string& /*reply*/) {
        m_state = State::Served;
        m_nextStep = Now() + m_world.DrawSeconds(0, LONGEST * m_world.longestStaySeconds);
        if (!m_world.isBlocked)
            ExpectFrom(m_world.source.Sent() + 1);
        ++m_world.tally.adds;
    });
}

void Configured::BeDeleted()
{
    m_state = State::BeingDeleted;
    BeginLeave();
    ExpectStops(STOP_MESSAGES);
    m_world.control.Post("Delete " + AddressText(), [this](const std::string& /*reply*/) {
        HaveGone();
        m_state = State::Away;
        m_nextStep = Now() + m_world.DrawSeconds(0, LONGEST * m_world.longestStaySeconds);
    });
}
