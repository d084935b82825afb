#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "arqrx/core/receiver.h"
#include "simulation/arqrx_playout.h"
#include "simulation/simulated_receiver.h"

namespace simulation {

// One arqrx::Receiver from its begin to its end, driven as its header says. After every call its figures must agree
// with each other and with what it did, a wake-up leaves nothing to be done at once, and there are no more of them than
// what there is to do. Times are virtual, `localUs` are by the receiver's own clock.
class ArqrxLife {
public:
    // Takes what the receiver sends.
    class Sender {
    public:
        Sender() = default;
        Sender(const Sender&) = delete;
        Sender& operator=(const Sender&) = delete;
        virtual ~Sender() = default;

        virtual void Send(arqrx::ProxyPort port, std::span<const uint8_t> bytes) = 0;
    };

    ArqrxLife(Machine& machine, int index, const arqrx::Settings& settings, const ArqrxSource& source,
        Sender& sender);

    void OnDatagram(const std::vector<uint8_t>& bytes, int64_t localUs);
    // Nothing is done before the wake-up.
    void OnTime(int64_t localUs);
    void Leave(int64_t localUs);
    // By the local clock; INT64_MAX: only a datagram brings something to do.
    int64_t WakeUpUs() const { return m_receiver.NextWakeUp().timeUs; }

    // The proxy's clock was set.
    void OnClockStep(int64_t byUs);

    void CheckNothingMissing() const;
    // It has left, a while ago.
    void CheckSilent() const;

    ArqrxPlayOut& PlayOut() { return m_playOut; }
    PlayedTotals Totals() const;

private:
    struct ClockStep {
        int64_t atUs;
        uint64_t restartsBefore;
    };

    void Draw(int64_t localUs);
    void NoteTransmit(const arqrx::Transmit& transmit);
    void NoteRequest(std::span<const uint8_t> list);
    void NoteArrival(const std::vector<uint8_t>& bytes);
    // Of the datagrams one waits for another that proves a change of the stream.
    bool HoldsOne() const;
    void CheckFigures() const;
    void CheckRestarts();
    void CheckWakeUps() const;

    int64_t NowUs() const { return m_machine.clock.NowUs(); }

    Machine& m_machine;
    const int m_nIndex;
    const arqrx::Settings m_settings;
    Sender& m_sender;
    arqrx::Receiver m_receiver;
    ArqrxPlayOut m_playOut;
    const int64_t m_nBeganUs;
    bool m_bLeaving = false;
    uint64_t m_nWakeUps = 0;

    // Counted again.
    uint64_t m_nTaken = 0; // datagrams but for echoes and stop messages
    uint64_t m_nMedia = 0; // of these
    uint64_t m_nResends = 0;
    uint64_t m_nDisbelieved = 0; // media that it took for none of the stream's
    uint64_t m_nPings = 0;
    uint64_t m_nRequests = 0;
    uint64_t m_nNumbersAsked = 0;
    uint64_t m_nEchoes = 0;

    // Reasons to begin afresh: the clock, another source, a jump of numbers, or nothing for a while.
    uint64_t m_nReasons = 0;
    int64_t m_nLastMediaUs = 0;
    int64_t m_nLastReasonUs = 0; // of another kind than the clock
    uint32_t m_nSsrc = 0;
    uint16_t m_usLastSeq = 0;
    uint32_t m_nLastTimestamp = 0;
    std::optional<ClockStep> m_step; // that is to be answered
    uint64_t m_nStepsAnswered = 0;
};

} // namespace simulation
