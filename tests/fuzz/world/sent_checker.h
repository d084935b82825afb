#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "input/packet_buffer.h"
#include "kernel_model/refused_datagrams.h"

class MyArqSendCB;

// Knows, from the protocol alone, what may leave the proxy: each input packet once to each stream, in order and as it
// came but for its time; of those that a ring still holds, what was asked for, within age, hold-off and byte budget; what
// is echoed; the stop message. Anything else ends the run.
//
// Threads: one.
class SentChecker {
public:
    static constexpr size_t RING = 64; // packets that the engines keep
    // That the engines are given, in bit/s. Low, so that a few packets cost more than their budget.
    static constexpr uint32_t BIT_RATE = 80000;

    explicit SentChecker(bool udpInput) : m_bUdpInput(udpInput) {}

    void Forget();

    // What is sent from here to End...() is checked as told.
    // Input packets go to these streams, each in this order, unless it is withheld.
    void BeginMedia(const std::vector<std::string_view>& packets, std::vector<const MyArqSendCB*> streams,
        bool mayBeWithheld, uint32_t ticks);
    // All of `holders` remember them.
    void EndMedia(PacketBuffer* const* packets, const std::vector<const MyArqSendCB*>& holders);
    // A datagram from a receiver on the request port; `stream` is the one it belongs to, null for none.
    void BeginRequest(std::string_view datagram, const MyArqSendCB* stream, uint32_t ticks);
    void EndRequest();
    // A stream is deleted; null: the text names none.
    void BeginDelete(const MyArqSendCB* stream);
    void EndDelete();

    // Each datagram of the message is expected once, however often it is tried.
    void OnMessage(const kernel_model::Attempt& attempt, kernel_model::Fate fate);

    // What the first packet's number was less one: the base of requests that count from it.
    uint16_t LastSeq() const { return m_usLastSeq; }

private:
    enum class Phase { Silence, Media, Request, Delete };

    struct Resent {
        const MyArqSendCB* stream;
        uint32_t notBeforeTicks;
    };
    struct Stored {
        bool isThere = false;
        std::string bytes; // as sent first
        uint16_t seq = 0;
        uint32_t ticks = 0;
        uint32_t requestsBefore = 0;
        std::vector<const MyArqSendCB*> holders;
        std::vector<Resent> resent;
    };
    struct AskedFor {
        bool isRequest = false;
        bool isEcho = false;
        std::string bytes; // without tag
        std::vector<uint32_t> numbers; // of the list
        bool isWhole = false; // the list came whole: it claims no more numbers than the datagram has
        uint32_t maxAgeTicks = 0;
        uint32_t budgetBytes = 0;
    };

    struct Packet {
        std::string bytes; // of the input, with its new time
        std::string first; // the first datagram that was made of it; empty: none yet
        bool isWithheld = false;
    };

    struct Tried {
        size_t place; // of the stream, among those that get media

        int Owner() const { return static_cast<int>(place); }
    };

    Tried OnDatagram(std::string_view datagram, const sockaddr_in& destination);
    Tried CheckMedia(std::string_view datagram, const sockaddr_in& destination);
    bool TakePacket(size_t place, std::string_view datagram);
    bool IsMadeOf(std::string_view datagram, const Packet& packet) const;
    bool HasAll(size_t place, size_t packets) const;
    void Store(
        const Packet& packet, const PacketBuffer& buffer, const std::vector<const MyArqSendCB*>& holders);
    void CheckAnswer(std::string_view datagram);
    void CheckResend(std::string_view datagram);
    bool MustBeAnswered() const;
    bool IsAskedFor(const Stored& stored) const;
    bool IsResendOf(std::string_view datagram, const Stored& stored) const;
    void ReadRequest(std::string_view datagram);

    const bool m_bUdpInput;
    Phase m_phase = Phase::Silence;
    uint32_t m_nTicks = 0;
    std::vector<Packet> m_packets; // the input packets that are sent together
    bool m_bMayBeWithheld = false;
    std::vector<const MyArqSendCB*> m_streams;
    std::vector<size_t> m_next; // of each stream: the packet that was not tried yet
    kernel_model::RefusedDatagrams<Tried> m_refused;
    size_t m_nSent = 0; // datagrams of this phase
    uint32_t m_nSentBytes = 0;
    const MyArqSendCB* m_pStream = nullptr;
    AskedFor m_asked;
    std::array<Stored, RING> m_ring;
    uint32_t m_nRequests = 0;
    uint16_t m_usLastSeq = 0;
    bool m_bIsFirst = true;
};
