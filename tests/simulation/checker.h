#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "kernel_model/refused_datagrams.h"
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
    std::vector<uint8_t> bytes; // for a receiver that reads them, otherwise empty

    int Owner() const { return receiver; }
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
    // A packet is about to be sent to a receiver that reads bytes, or withheld: as its first sending is.
    virtual void TellSource(int receiver, uint16_t seq, const std::vector<uint8_t>& bytes) = 0;
};

// What left in how many calls.
struct SendCounts {
    uint64_t trains = 0; // of two datagrams at least
    uint64_t inTrains = 0; // datagrams
    uint64_t refusedTrains = 0;
    uint64_t partialMany = 0; // of many messages in one call one was refused that was not the first
    uint64_t wouldWait = 0;
    uint64_t pendingErrors = 0; // of an earlier datagram, that a call was told of
    uint64_t readTogether = 0; // datagrams of receivers that were read while others waited to be served

    void Add(const SendCounts& other)
    {
        trains += other.trains;
        inTrains += other.inTrains;
        refusedTrains += other.refusedTrains;
        partialMany += other.partialMany;
        wouldWait += other.wouldWait;
        pendingErrors += other.pendingErrors;
        readTogether += other.readTogether;
    }
};

// Knows what the proxy must do next and sees what it does. Every datagram is expected: its receiver, port, socket
// and bytes; every expected one is sent, once, in whatever company; every counter is counted a second time.
class Checker : public Outside {
public:
    Checker(Machine& machine, const Config& config, const std::vector<ReceiverIdentity>& receivers,
        Postman& postman, WrapCounts& wraps);

    // The replicator stands; its threads are `firstFiber` (listening) and the next two (keep-alive, status).
    void Attach(ArqSendReplicator& replicator, int firstFiber);
    // It goes.
    void Detach();
    void EndFaults() { m_bFaults = false; }

    // Input: the buffer now holds that packet; some are handed to the fan-out together; it is done with them.
    void OnFilled(const PacketBuffer& packet, uint16_t seq);
    void BeginInput(PacketBuffer* const* packets, int32_t count);
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
    const SendCounts& Sends() const { return m_sends; }

    int Refuse(const kernel_model::Attempt& attempt) override;
    void OnMessage(const kernel_model::Attempt& attempt, kernel_model::Fate fate) override;
    void OnSocketMade() override;
    void OnRead(uint16_t port, const kernel_model::ReceivedDatagram& datagram) override;
    void OnWaiting() override;
    void OnServe(uint16_t port, const kernel_model::ReceivedDatagram& datagram) override;
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
    enum class Sending { Open, Leaves, Withheld }; // Open: the first stream's datagrams will tell
    struct Packet {
        int32_t buffer;
        uint16_t seq;
        uint32_t ticks;
        Sending sending;
    };
    struct Input {
        int fiber = Fibers::NONE; // NONE: no packets are being sent
        std::vector<Packet> packets; // that are sent together
        std::vector<int> receivers; // they go to, in the order of the table
        std::vector<size_t> next; // of each receiver: the packet that was not tried yet
        int32_t dropsBefore = 0;
        uint16_t newestSeq = 0;
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
    void CheckSocket(const kernel_model::Socket& socket, StreamModel& stream, int receiver) const;
    void ExpectPacket(const PacketBuffer& packet);
    void TellSource(const Packet& packet);
    Delivery Recognise(const kernel_model::Attempt& attempt, const uint8_t* bytes, size_t length);
    Delivery CheckMedia(int receiver, const uint8_t* bytes, size_t length);
    size_t FindPacket(size_t place, int receiver, const uint8_t* bytes, size_t length);
    bool HasAll(size_t place, size_t packets) const;
    std::vector<uint8_t> Expect(int receiver, int32_t buffer, uint16_t seq, uint32_t ticks, bool isResend);
    void CountMessage(const kernel_model::Attempt& attempt, kernel_model::Fate fate);
    void CheckSettled() const;
    Delivery CheckAnswer(int receiver, const uint8_t* bytes, size_t length);
    Delivery CheckStop(int receiver, const uint8_t* bytes, size_t length);
    void CheckPacket(int receiver, int32_t buffer, uint16_t seq, uint32_t ticks, bool isResend,
        const uint8_t* bytes, size_t length);
    void ServeRequest(const kernel_model::ReceivedDatagram& datagram);
    void ServePing(const kernel_model::ReceivedDatagram& datagram);
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
    kernel_model::RefusedDatagrams<Delivery> m_refused;
    SendCounts m_sends;

    std::deque<kernel_model::ReceivedDatagram> m_readRequests; // and not served yet
    std::deque<kernel_model::ReceivedDatagram> m_readPings;
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
