#pragma once

#include "receiver.h"

// A destination that the operator adds and deletes again and again. It says nothing.
class Configured : public Receiver {
public:
    Configured(World& world, uint8_t index, const sockaddr_in& address);

    void Step(double now) override;

    bool IsAway() const { return m_state == State::Away; }

private:
    enum class State { Away, BeingAdded, Served, BeingDeleted };

    void BeAdded();
    void BeDeleted();

    State m_state = State::Away;
    double m_nextStep = 0;
};
