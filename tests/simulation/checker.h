#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "simulation/config.h"
#include "simulation/engine_model.h"
#include "simulation/impairment_model.h"
#include "simulation/machine.h"
#include "simulation/stream_book.h"
#include "simulation/wraps.h"

class ArqSendReplicator;
struct PacketBuffer;

namespace simulation {

// What the proxy sends to a receiver, as the checker has recognised it.
struct Delivery {
    enum class Kind { Media, Resend, Echo, Stop };

    Kind kind;
    int receiver;
    uint16_t portNet; // of the receiver that it goes to
    uint16_t seq;
};

// Where recognised datagrams and the fate of requested numbers go: the links and receivers.
class Postman {
public:
    Postman() = default;
    Postman(const Postman&) = delete;
    Postman& operator=(const Postman&) = delete;
    virtual ~Postman() = default;

    virtual void SendDown(const Delivery& delivery) = 0;
    virtual void TellVerdict(int receiver, uint16_t seq, EngineModel::Verdict verdict) = 0;
};

// Knows what the proxy must do next and sees what it does. Every datagram is expected: its receiver, port, socket
// and bytes; every expected one is sent; every counter is counted a second time.
class Checker : public Outside {
public:
    Checker(Machine& machine, const Config& config, const std::vector<ReceiverIdentity>& receivers,
        Postman& postman, WrapCounts& wraps);

    // The replicator stands; its threads are `firstFiber` (listening) and the next two (keep-alive, status).
    void Attach(ArqSendReplicator& replicator, int firstFiber);
    // It goes.
    void Detach();
    void EndFaults() { m_bFaults = false; }

    // Input: the buffer now holds that packet; it is handed to the fan-out; the fan-out is done with it.
    void OnFilled(const PacketBuffer& packet, uint16_t seq);
    void BeginInput(const PacketBuffer& packet);
    void EndInput();

    // Operator. Receivers are StreamBook's.
    void BeginAdd(int receiver);
    void EndAdd(int receiver);
    void BeginDelete(int receiver);
    void EndDelete(int receiver);
    void OnStatsCleared(bool rx, bool tx);
    std::string ExpectedReply(const std::string& command) const;
    ImpairmentModel& Impair() { return m_impairment; }

    // Every virtual second.
    void CheckCounters();
    void WatchClocks();

    StreamBook& Book() { return m_book; }
    uint64_t Inputs() const { return m_nInputs; }

    int OnSend(int fd, const sockaddr_in& destination, const uint8_t* bytes, size_t length) override;
    void OnSocketMade(int fd) override;
    void OnServe(uint16_t port, const ReceivedDatagram& datagram) override;
    void OnServed() override;
    void OnTimeOfDay() override;
    void OnSteadyTime() override;

private:
    struct Bytes {
        uint64_t sum = 0; // since the last sample
        uint32_t rate = 0; // of the last sample, bit/s
    };
    struct Expected {
        Delivery delivery;
        std::vector<uint8_t> echo;
        ExpectedResend resend;
    };
    struct Input {
        int fiber = Fibers::NONE; // NONE: no packet is being sent
        int32_t buffer = 0;
        uint16_t seq = 0;
        uint32_t ticks = 0;
        size_t sent = 0;
        int32_t dropsBefore = 0;
    };
    struct Serving {
        int fiber = Fibers::NONE;
        bool isPing = false;
        bool isStop = false;
        int receiver = StreamBook::NOBODY; // who sent it
        uint16_t portNet = 0;
        int64_t atUs = 0;
    };
    struct Deleting {
        int fiber = Fibers::NONE;
        int receiver = StreamBook::NOBODY;
        bool isExpected = false;
        int stops = 0;
        int64_t beganUs = 0;
    };

    int32_t BufferOf(const PacketBuffer& packet) const;
    uint8_t* BytesOf(int32_t buffer) { return &m_bytes[static_cast<size_t>(buffer) * SLICE_BYTES]; }
    int ReceiverAt(const sockaddr_in& destination) const;
    void CheckSocket(int fd, const StreamModel& stream, int receiver) const;
    Delivery CheckMedia(int receiver, const uint8_t* bytes, size_t length);
    Delivery CheckAnswer(int receiver, const uint8_t* bytes, size_t length);
    Delivery CheckStop(int receiver, const uint8_t* bytes, size_t length);
    void CheckPacket(int receiver, int32_t buffer, uint16_t seq, uint32_t ticks, bool isResend,
        const uint8_t* bytes, size_t length);
    void ServeRequest(const ReceivedDatagram& datagram);
    void ServePing(const ReceivedDatagram& datagram);
    void ExpectEcho(int receiver, const uint8_t* bytes, size_t length);
    void ExpectResends(int receiver, const uint8_t* bytes, size_t length);
    void PingServed();
    void CountLoss(uint16_t seq);
    void Sample(Bytes& bytes, uint32_t nowUs) const;
    void PrimeByteCounters();
    uint32_t NowTicks() const { return TicksOf(m_machine.clock.WallUs()); }
    std::string ClientList() const;

    static constexpr size_t SLICE_BYTES = 1536;

    Machine& m_machine;
    const Config& m_config;
    const std::vector<ReceiverIdentity>& m_receivers;
    Postman& m_postman;
    WrapCounts& m_wraps;
    StreamBook m_book;
    ImpairmentModel m_impairment;
    Random m_socketRandom;
    bool m_bFaults = true;
    ArqSendReplicator* m_pReplicator = nullptr;
    int m_nKeepAliveFiber = Fibers::NONE;
    int m_nStatusFiber = Fibers::NONE;

    const PacketBuffer* m_pFirstBuffer = nullptr;
    std::vector<BufferContent> m_contents; // one a buffer of the pool
    std::vector<uint8_t> m_bytes; // as they were put into the buffers
    uint64_t m_nInputs = 0;
    uint16_t m_usBuiltSeq = 0;
    std::vector<uint64_t> m_lastInput; // of each receiver: the last input that was sent to it, plus 1
    Input m_input;

    Serving m_serving;
    std::vector<Expected> m_expected; // of the request that is being served
    size_t m_nNextExpected = 0;
    Deleting m_deleting;
    bool m_bWasThere = false; // the stream that is being added

    // The counters, counted again.
    uint64_t m_nRxPackets = 0;
    uint64_t m_nTxPackets = 0;
    int32_t m_nRxLoss = 0;
    bool m_bFirstRxPacket = true;
    uint16_t m_usExpectedSeq = 0;
    int32_t m_nDropped = 0;
    Bytes m_rxBytes;
    Bytes m_txBytes;
    bool m_bSampling = false;
    uint32_t m_nSampledUs = 0;
    bool m_bPrimed = false;

    // Readings of the clocks a second ago.
    bool m_bHasReadings = false;
    int64_t m_nLastWallUs = 0;
    int64_t m_nLastSteadyUs = 0;
};

} // namespace simulation
