#pragma once

#include <cstdint>

#include "fence.h"
#include "receiver.h"

// A receiver that comes and goes: it pings until media come, asks for much, moves to another port, and leaves:
// with a stop message, deleted by the operator, or by falling silent.
class Guest : public Receiver {
public:
    // Alone at its address it can be told from the list whether it is there; without an ID, too, "Delete" finds it.
    Guest(World& world, Fence& fence, int32_t place, bool isAlone, const sockaddr_in& address,
        uint32_t streamId);

    void Step(double now) override;

    bool IsAway() const { return m_state == State::Away; }
    bool IsServed() const { return m_state == State::Served; }
    uint64_t Joins() const { return m_nJoins; }

    static void AllowSilence(bool allowed) { s_bMayBeSilent = allowed; }

private:
    enum class State { Away, Joining, Served, BeingDeleted, Leaving, Silent };

    void OnFirst(uint64_t number) override;
    void StepOfServed(double now);
    void StepOfSilence();
    void Act(double now);
    void AskForSomething(double now);
    void Leave();
    void BeDeleted(bool pingsOn);
    void FallSilent();
    void BeAway();
    bool IsWanted() const { return m_nPlace < m_world.wanted; }

    static bool s_bMayBeSilent;

    Fence& m_fence;
    const int32_t m_nPlace; // among the guests
    const bool m_bAlone;
    const bool m_bDeletable;
    State m_state = State::Away;
    bool m_bPingsOn = false; // while it is deleted
    uint64_t m_nMark = 0; // of the fence
    uint64_t m_nLooseMark = 0; // 0: none
    uint64_t m_nReportSeen = 0;
    double m_nextStep = 0; // when it acts
    double m_nextPing = 0;
    double m_nextAsk = 0;
    double m_echoBy = 0; // waits no longer for an echo
    uint64_t m_nJoins = 0;
};
