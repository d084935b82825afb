#include "fence.h"

#include <cstdlib>

namespace {

constexpr double AGAIN_SECONDS = 0.3; // a full table may have refused it
constexpr char CLIENTS[] = "CLIENTS=";
constexpr char ACCEPTED[] = "RECV_PACKETS=";

} // namespace

Fence::Fence(World& world, uint8_t index, const sockaddr_in& address, double apartSeconds)
    : Receiver(world, index, address, NO_ID),
      m_apartSeconds(apartSeconds)
{
    BeLoose(true);
}

void Fence::Step(double now)
{
    if (m_bAsking || (m_bRests && IsAway()) || now < m_nextLook)
        return;
    m_nextLook = now + m_apartSeconds;
    if (m_nDone == m_nBegun) {
        m_bThere = !m_bThere;
        m_nPingsBefore = m_world.Pings();
        ++m_nBegun;
        if (m_bThere)
            Come();
        Speak(now);
    } else if (now - m_spokenAt > AGAIN_SECONDS) {
        Speak(now);
    }
    m_bAsking = true;
    const uint64_t fannedOut = m_world.FannedOut();
    m_world.control.Post("AllStats", [this, fannedOut](const std::string& report) {
        m_nFannedOutBefore = fannedOut;
        TakeReport(report);
    });
}

void Fence::Speak(double now)
{
    m_spokenAt = now;
    if (m_bThere)
        Ping();
    else
        SendStop();
}

void Fence::TakeReport(const std::string& report)
{
    m_bAsking = false;
    ++m_nReports;
    m_world.acceptedPackets = strtoull(report.c_str() + sizeof(ACCEPTED) - 1, nullptr, 10);
    m_listed.clear();
    size_t begin = report.find(CLIENTS) + sizeof(CLIENTS) - 1;
    for (size_t end = begin; end != std::string::npos && begin < report.size(); begin = end + 1) {
        end = report.find(',', begin);
        m_listed.insert(report.substr(begin, end == std::string::npos ? end : end - begin));
    }
    if (m_nDone != m_nBegun && (m_listed.count(AddressText()) != 0) == m_bThere) {
        m_nDone = m_nBegun;
        m_world.HandledPings(m_nPingsBefore);
    }
}
