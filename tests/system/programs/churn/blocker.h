#pragma once

#include <cstdint>

#include "receiver.h"

// The destination that takes next to nothing: it is added, holds everything up, and is deleted, over and over.
// What it gets comes late, by a slow cable, but in order.
class Blocker : public Receiver {
public:
    Blocker(World& world, uint8_t index, const sockaddr_in& address);

    void Step(double now) override;

    bool IsAway() const { return m_state == State::Away; }

private:
    enum class State { Away, Added, Holding, BeingDeleted };

    void BeAdded();
    void Watch(double now);
    void BeDeleted(double now);

    State m_state = State::Away;
    double m_nextStep = 0;
    double m_movedAt = 0;
    uint64_t m_nConfirmed = 0;
};
