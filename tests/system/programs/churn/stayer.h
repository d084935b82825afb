#pragma once

#include <cstdint>
#include <map>

#include "receiver.h"

// A receiver that stays and behaves well: it pings, and asks for what it misses until it has it. It loses some of
// what comes on purpose; the proxy may lose nothing.
class Stayer : public Receiver {
public:
    Stayer(World& world, uint8_t index, const sockaddr_in& address, uint32_t streamId);

    void Step(double now) override;

    uint64_t Newest() const { return m_nNewest; }
    uint64_t OldestMissing() const { return m_missing.empty() ? m_nNewest + 1 : m_missing.begin()->first; }
    uint64_t Recovered() const { return m_nRecovered; }

private:
    void OnFirst(uint64_t number) override;
    void OnResend(uint64_t number) override;
    void AskForMissing(double now);

    std::map<uint64_t, double> m_missing; // number to when it may be asked for again
    uint64_t m_nNewest = Source::FIRST_NUMBER - 1;
    uint64_t m_nRecovered = 0;
    double m_nextPing = 0;
    double m_nextAsk = 0;
};
