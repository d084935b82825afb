#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>

#include "arqrx/core/receiver.h"
#include "simulation/arqrx_source.h"
#include "simulation/engine_model.h"
#include "simulation/machine.h"

namespace simulation {

// Watches what one arqrx::Receiver plays out in its life. It knows what the source sent under each number, what of it
// arrived and what was asked for: the output is the input less what could not be had, in order, once.
// All times are virtual where nothing else is said.
class ArqrxPlayOut {
public:
    ArqrxPlayOut(Machine& machine, int receiver, const arqrx::Settings& settings, const ArqrxSource& source)
        : m_machine(machine),
          m_nReceiver(receiver),
          m_settings(settings),
          m_source(source)
    {
    }

    // A media datagram is about to be given to the receiver.
    void OnArrival(uint16_t seq);
    // Another clock, source or way from now on: it may find that the first packets were not the fastest.
    void OnChange() { m_nChangedUs = NowUs(); }
    // It took one of the last few for none of the stream's: their time, number and source did not go together.
    void OnDisbelieved();
    // The receiver asks for it, perhaps not sure yet of the newest; later the proxy answers.
    void OnAsked(uint16_t seq, bool isUnsure = false);
    void OnVerdict(uint16_t seq, EngineModel::Verdict verdict);
    // It plays that out. `localUs` is the time by the receiver's own clock.
    void OnPlayed(const arqrx::Packet& packet, int64_t localUs);
    // From now on nothing is lost on the way, nothing overtakes.
    void BeginCalm() { m_nCalmUs = NowUs(); }
    // Until then something else than loss keeps it from asking: it is cut off, elsewhere or unknown to the proxy.
    void Disturb(int64_t untilUs) { m_nDisturbedUs = untilUs; }

    // What arrived last was played.
    void CheckAllPlayed() const;
    uint64_t Played() const { return m_nPlayed; }
    // Packets with which play-out began afresh, but for the very first.
    uint64_t Restarts() const { return m_nRestarts; }
    // Numbers that were said to be lost.
    uint64_t LeftOut() const { return m_nLeftOut; }

private:
    // A number between the last that was played and the newest that arrived.
    struct Ahead {
        int64_t missedUs = -1; // a higher one came before it
        int64_t arrivedUs = -1;
        int64_t askedUs = -1; // the last time
        bool isDoubtful = false; // whether it is there
        EngineModel::Verdict verdict = EngineModel::Verdict::Resent; // the last one
    };

    void CheckTime(const arqrx::Packet& packet, int64_t localUs) const;
    void CheckOrder(const arqrx::Packet& packet) const;
    void CheckBytes(const arqrx::Packet& packet) const;
    void CheckLeftOut(uint16_t seq);

    int64_t NowUs() const { return m_machine.clock.NowUs(); }

    Machine& m_machine;
    const int m_nReceiver;
    const arqrx::Settings m_settings;
    const ArqrxSource& m_source;
    int64_t m_nCalmUs = INT64_MAX;
    int64_t m_nDisturbedUs = 0;
    int64_t m_nChangedUs = INT64_MIN / 2; // never
    std::unordered_map<uint16_t, Ahead> m_ahead;
    std::optional<uint16_t> m_newest; // arrived
    int64_t m_nArrivedUs = 0; // when the last one did
    static constexpr size_t LAST_ARRIVED = 3;
    std::array<uint16_t, LAST_ARRIVED> m_lastArrived {};
    size_t m_nArrived = 0;
    std::optional<uint64_t> m_lastNumber; // played
    int64_t m_nLastPlayedUs = 0;
    uint64_t m_nPlayed = 0;
    uint64_t m_nRestarts = 0;
    uint64_t m_nLeftOut = 0;
};

} // namespace simulation
