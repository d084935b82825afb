#pragma once

#include <cstdint>

#include "arqrx/core/receiver.h"
#include "arqrx/core/round_trip.h"

namespace arqrx {

// What is sent whether or not anything is missing: pings that join and keep the stream, echoes that measure the round
// trip, and leave messages. Decides when; who writes the datagrams asks for what is due, one after the other.
class KeepAlive {
public:
    enum class Due : uint8_t { Nothing, Leave, Ping, Echo };

    explicit KeepAlive(const Settings& settings) : m_settings(settings), m_nSilenceUs(settings.silenceUs) {}

    void Begin(int64_t nowUs);
    // Returns whether this begins a join anew.
    bool Advance(int64_t nowUs);
    // Something of the stream came.
    void Hear(int64_t nowUs);
    // The proxy's stop message.
    void Stop(int64_t nowUs);
    void Leave();

    // What is to be sent next, which counts as sent.
    Due Take(int64_t nowUs);
    // May anything but a leave message be sent.
    bool IsQuiet() const { return m_bStopped || m_bLeft; }
    WakeUp Next() const;
    // Before any time is known.
    WakeUp First() const;

    EchoSchedule& Echoes() { return m_echoes; }

private:
    bool Rejoin(int64_t nowUs);
    int64_t SilentAtUs() const;

    const Settings m_settings;
    EchoSchedule m_echoes;
    bool m_bPingDue = false;
    bool m_bEchoDue = false;
    bool m_bStopped = false;
    bool m_bLeft = false;
    int m_nLeaves = 0; // to be sent
    int64_t m_nPingUs = 0; // when the next is due
    int64_t m_nHeardUs = 0; // last, or joined last
    int64_t m_nSilenceUs; // how long may pass without: grows while joining anew does not help
    int64_t m_nResumeUs = 0; // after a stop message
};

} // namespace arqrx
