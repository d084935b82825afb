#pragma once

#include <optional>
#include <span>

#include "arqrx/core/asker.h"
#include "arqrx/core/datagram_kind.h"
#include "arqrx/core/datagram_writer.h"
#include "arqrx/core/keep_alive.h"
#include "arqrx/core/missing_list.h"
#include "arqrx/core/packet_buffer.h"
#include "arqrx/core/probation.h"
#include "arqrx/core/receiver.h"
#include "arqrx/core/recent_most.h"
#include "arqrx/core/recover_times.h"
#include "arqrx/core/reorder_tolerance.h"
#include "arqrx/core/round_trip.h"
#include "arqrx/core/timeline.h"

namespace arqrx {

// What is behind a Receiver: leads datagrams and time through the parts. Packets are counted by an index that goes on
// without jumps through all stretches; play-out and everything that waits go by it.
class Receiver::Engine {
public:
    explicit Engine(const Settings& settings);

    // As in Receiver.
    void OnDatagram(std::span<const uint8_t> datagram, int64_t nowUs);
    void OnTime(int64_t nowUs);
    void Leave();
    void EndOfStream(int64_t nowUs);
    std::optional<Transmit> NextTransmit();
    std::optional<Packet> NextPacket();
    WakeUp NextWakeUp() const;
    const Figures& Counted();

private:
    static constexpr uint64_t FIRST_INDEX = uint64_t { 1 } << 20; // a window before it needs no check
    static constexpr uint64_t NONE = UINT64_MAX;

    // engine.cpp
    void Begin(int64_t nowUs);
    void Advance();
    void OnEcho(std::span<const uint8_t> datagram);
    bool MayAsk() const { return m_settings.isAsking && !m_keepAlive.IsQuiet(); }

    // engine_arrival.cpp: first sendings and resends
    void OnFirstSending(const Arrival& arrival);
    void OnMisfit(const Arrival& arrival);
    bool IsStraggler(const Arrival& arrival) const;
    void OnStraggler(const Arrival& arrival);
    void ForgetHeld();
    void OnResend(std::span<const uint8_t> datagram, const MediaWords& words);
    bool Fits(const Arrival& arrival);
    bool FitsAhead(int distance, int64_t aheadUs) const;
    bool FitsBehind(int distance, int64_t aheadUs, const Arrival& arrival);
    double ExpectedNumbers(int64_t aheadUs) const;
    bool IsHopelesslyBehind() const;
    void Change(const Arrival& earlier, const Arrival* later);
    bool BeginStretch(const Arrival& arrival, bool isSameRun, bool isSameClock);
    void Accept(const Arrival& arrival);
    void Append(uint64_t index, const Arrival& arrival);
    void NoticeGap(uint64_t first, uint64_t end, int64_t beforeUs, int64_t afterUs);
    void OnBehind(uint64_t index, std::span<const uint8_t> datagram, const MediaWords& words, bool isResend);
    Gap* GapOf(uint64_t index);
    bool GoesInto(const Gap& gap, uint32_t timestamp);
    void Fill(Gap& gap, std::span<const uint8_t> datagram, int64_t dueUs, bool isResend);
    int64_t DueNear(uint64_t index, uint32_t timestamp, int64_t nearUs);
    Slot* Store(uint64_t index, std::span<const uint8_t> datagram, int64_t dueUs, bool isResend);
    void Drop();

    // engine_play_out.cpp
    void Release();
    void GiveUp(uint64_t first, uint64_t end);
    void Lose(Gap& gap);
    int64_t DueUs(uint64_t index);
    int64_t NextDueUs() const;
    void FreeOut();
    void ReadGauges();

    // The source or the numbers before the last change. Packets of it that the change overtook may still come.
    struct Former {
        uint32_t ssrc = 0;
        uint16_t seq = 0; // the newest
        ClockFollower clock;
        int64_t endedUs = 0; // when the first packet after it came
    };

    const Settings m_settings;
    Figures m_figures;
    DatagramWriter m_writer;
    RoundTrip m_roundTrip;
    ReorderTolerance m_tolerance;
    KeepAlive m_keepAlive;
    MissingList m_missing;
    Asker m_asker;
    PacketBuffer m_packets;
    Timeline m_timeline; // empty before the first packet
    std::optional<Former> m_former; // nothing before the first change
    Probation m_probation;
    RecoverTimes m_recoverTimes;
    RecentMost m_mostAsked;
    uint64_t m_nTimesRead = 0; // recover times that the figures know

    bool m_bBegun = false; // a time is known
    int64_t m_nJoinedUs
        = INT64_MAX; // when we joined anew, until it is seen whether the stream is another one
    int64_t m_nNowUs = 0;

    Newest m_newest;
    int64_t m_nNewestMediaUs = 0;
    int64_t m_nNewestDueUs = 0;
    int64_t m_nNewestBehindUs = 0; // arrival, less when the fastest packet would have arrived
    uint32_t m_nSsrc = 0;
    uint8_t m_nPayloadType = 33; // of first sendings

    uint64_t m_nPlay = FIRST_INDEX; // not played out yet, nor anything behind it
    uint64_t m_nRelease = FIRST_INDEX; // what is before it is decided: to be played out, or lost
    uint64_t m_nHere = NONE; // the first that is here of those not decided
    int64_t m_nHereDueUs = 0;
    int64_t m_nReleasedUs = INT64_MIN; // when the last of those decided was due
    uint64_t m_nPlayed = FIRST_INDEX - 1; // last
    uint8_t* m_pOut = nullptr; // bytes of the packet that the caller looks at
};

} // namespace arqrx
