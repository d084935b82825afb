#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "arqrx/core/figures.h"
#include "arqrx/core/settings.h"

namespace arqrx {

// Which of the proxy's ports a datagram is for.
enum class ProxyPort : uint8_t {
    Ping, // joins, keeps, leaves: the port that media come from (-p; -b of a group)
    Request // asks for packets, measures the round trip (-r)
};

// A datagram to send, from the socket on which media arrive. The bytes stand until the receiver is called again.
struct Transmit {
    ProxyPort port;
    std::span<const uint8_t> bytes;
};

// A packet whose time to be played out has come. The bytes stand until the receiver is called again.
struct Packet {
    uint64_t number; // sequence number, in 64 bits
    int64_t dueUs; // when it should leave; never later than the `now` that brought it out
    std::span<const uint8_t> datagram; // RTP header and payload; payload type as it was at the first sending
    bool isRecovered; // it came as a resend
    uint64_t lostBefore; // packets that are lost between the one played out before and this one
    // Play-out begins afresh with this packet: no time or number connects it with those before. Not for the very first.
    bool isRestart;
};

// Why the receiver wants to be woken.
enum class Timer : uint8_t {
    None, // nothing to do until a datagram comes
    Ping, // the next ping to stay known to the proxy
    Echo, // the next measurement of the round trip
    Request, // a missing number's turn to be asked for, the first time or again
    PlayOut, // the next packet, or the end of waiting for a missing one
    Silence // nothing has come for long: join anew, from whatever address is ours now
};

struct WakeUp {
    int64_t timeUs; // INT64_MAX with Timer::None
    Timer timer;
};

// The receiving end of a stream that tx_proxy sends: it joins and stays by pinging, finds what is missing, asks for it,
// puts packets into order and says when each is to be played out. It has no socket, no thread and no clock: a datagram
// and the time go in, datagrams to send, packets to play out and the next wake-up come out. All times are microseconds
// of one steady clock of the caller's, which never goes back.
//
//     receiver.OnDatagram(bytes, now);            or receiver.OnTime(now) at the wake-up
//     while (auto transmit = receiver.NextTransmit()) ...
//     while (auto packet = receiver.NextPacket()) ...
//     wait until receiver.NextWakeUp() or the next datagram
//
// Threads: none of its own; one thread at a time may call. Errors: no call fails; whatever comes from the network is
// checked, and what is no datagram of ours is counted and forgotten. Memory is taken as the buffer fills, up to what
// Settings allow, and kept: a stream that flows evenly allocates nothing.
class Receiver {
public:
    explicit Receiver(const Settings& settings);
    ~Receiver();
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    // A datagram that arrived at `nowUs`, whole. The bytes are copied.
    void OnDatagram(std::span<const uint8_t> datagram, int64_t nowUs);
    // Nothing arrived, the time is `nowUs`. Needed at each wake-up; does no harm at any other time.
    void OnTime(int64_t nowUs);
    // The caller is about to end: the leave messages come out of NextTransmit, and no ping after them.
    void Leave();
    // No packet will come any more: whatever is missing is lost now, the rest comes out in order at its time. Pings go
    // on until Leave.
    void EndOfStream(int64_t nowUs);

    // What is to be sent, in order; nothing when all has been drawn.
    std::optional<Transmit> NextTransmit();
    // What is to be played out by the last `now`, in order, each number once.
    std::optional<Packet> NextPacket();
    WakeUp NextWakeUp() const;

    // Counted since the beginning; missing = recovered + lost + waiting after every call.
    const Figures& Counted() const;

private:
    class Engine;
    std::unique_ptr<Engine> m_engine;
};

} // namespace arqrx
