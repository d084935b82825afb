#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "receiver.h"

// Tells when the proxy has carried out what came to its ping port. A receiver of its own pings and stops in turn;
// the proxy takes pings one after the other, so when it is listed, or is no more, all that was sent before it spoke
// has had its effect.
class Fence : public Receiver {
public:
    // It looks at the list so long after the last look.
    Fence(World& world, uint8_t index, const sockaddr_in& address, double apartSeconds);

    void Step(double now) override;

    // Turns end when its receiver has left.
    void Rest(bool rests) { m_bRests = rests; }
    bool IsAway() const { return m_nDone == m_nBegun && !m_bThere && !m_bAsking; }

    // Passed(Mark()) becomes true when all is done that was sent to the ping port before Mark().
    uint64_t Mark() const { return m_nBegun + 1; }
    bool Passed(uint64_t mark) const { return m_nDone >= mark; }

    // The streams as the last report has them, and how many reports there were.
    const std::multiset<std::string>& Listed() const { return m_listed; }
    uint64_t Reports() const { return m_nReports; }
    // All that was sent to everybody when the last report was asked for.
    uint64_t FannedOutBefore() const { return m_nFannedOutBefore; }

private:
    void Speak(double now);
    void TakeReport(const std::string& report);

    const double m_apartSeconds;
    double m_nextLook = 0;
    bool m_bThere = false; // what the present turn is to bring about
    bool m_bAsking = false;
    bool m_bRests = true;
    double m_spokenAt = 0;
    uint64_t m_nPingsBefore = 0;
    uint64_t m_nBegun = 0;
    uint64_t m_nDone = 0;
    uint64_t m_nReports = 0;
    uint64_t m_nFannedOutBefore = 0;
    std::multiset<std::string> m_listed;
};
