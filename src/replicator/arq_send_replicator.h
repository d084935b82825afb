#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "arq/c_net_sync_vid.h"
#include "base/plain_word.h"
#include "control/impairment.h"
#include "input/packet_buffer.h"
#include "replicator/default_settings.h"
#include "replicator/fan_out.h"
#include "replicator/my_socket_listener.h"
#include "replicator/request_router.h"
#include "replicator/socket_group.h"
#include "replicator/stream_keeper.h"
#include "replicator/thread_crew.h"
#include "replicator/traffic_stats.h"

struct ArqSendStats;

// The heart of the proxy: owns the output streams, the packet pool, the media clock, the listeners for pings
// and requests and the threads that serve them, and knows the order in which they are built and ended. What
// they do is in FanOut (the packet path), StreamKeeper (streams come and go) and RouteRequest (resends).
//
// Threads: main or the pacer's timer calls SendPacket (both, with pacing); the listen thread calls
// ProcessPing and ProcessRequest; the control thread adds, deletes, lists, reads and resets statistics.
class ArqSendReplicator {
public:
    struct Settings {
        uint16_t arqRequestPort = DEFAULT_ARQ_REQUEST_PORT; // where receivers send their requests
        uint16_t destPort = DEFAULT_DEST_PORT; // where media go and pings arrive
        const char* destAddress = nullptr; // destinations, separated by ","; may be null or empty
        bool udpInputMode = false; // the input has no RTP headers: build them
        int32_t nStreams = 0; // interfaces per configured stream; 0: leave it to routing
        uint32_t stream1Percent = DEFAULT_STREAM1_PERCENT; // share of the first of two interfaces
        int32_t grossMediaBitrate = DEFAULT_GROSS_MEDIA_BITRATE; // bit/s; bounds what one request sends again
        uint16_t unicastUdpPort = 0; // with a multicast destination: the port for unicast receivers
        int32_t instance = 1;
    };

    // Builds everything and starts the threads. Clears ok when it is not usable; it must be destroyed
    // then. Resolving destinations may block.
    ArqSendReplicator(bool& ok, const Settings& settings);
    ArqSendReplicator(const ArqSendReplicator&) = delete;
    ArqSendReplicator& operator=(const ArqSendReplicator&) = delete;

    // Stops the threads and returns once they are gone, about a second later. No SendPacket may run.
    virtual ~ArqSendReplicator();

    // Starts listening, keep-alive and statistics; true when the listen thread runs.
    bool Start();
    // Ends those threads and waits until they are gone.
    void Stop();

    // See FanOut.
    int SendPacket(PacketBuffer* packet) { return m_fanOut->SendPacket(packet); }
    int SendPackets(PacketBuffer* const* packets, int32_t count)
    {
        return m_fanOut->SendPackets(packets, count);
    }
    int SendRaw(uint8_t* data, int32_t length) { return m_fanOut->SendRaw(data, length); }

    // A datagram from a receiver, with the stream ID of its tag (0: none). Address and port in network
    // order. Always return 1.
    int ProcessPing(PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet, uint32_t streamId);
    int ProcessRequest(PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet, uint32_t streamId,
        const RequestTime& time);

    // See StreamKeeper.
    int AddStream(const char* text, int32_t nInterfaces) { return m_keeper->AddStream(text, nInterfaces); }
    int DeleteStream(const char* text) { return m_keeper->DeleteStream(text); }
    int ListStreams(char* buffer, size_t room) { return m_keeper->ListStreams(buffer, room); }
    int GetStreamStats(ArqSendStats* out, int32_t index) { return m_keeper->GetStreamStats(out, index); }
    void ClearStreamStats(int32_t index) { m_keeper->ClearStreamStats(index); }

    void ResetRxStats() { m_rx.Reset(); }
    void ResetTxStats() { m_tx.Reset(); }
    const ReceiveStats& RxStats() const { return m_rx; }
    const TransmitStats& TxStats() const { return m_tx; }

    // Writes the debug dump to standard error.
    void DebugDump() const;

    // One step of the status thread: turns the byte counts since `thenUs` into bit rates. Both times are the
    // low 32 bits of a microsecond clock.
    void SampleBitrates(uint32_t nowUs, uint32_t thenUs);

    PacketBufferPool& PacketPool() { return *m_pPacketPool; }
    const StreamTable& Streams() const { return m_keeper->Table(); }
    const MyArqSendCB* MulticastStream() const { return m_pMulticastStream.get(); }
    uint16_t DestPort() const { return m_keeper->DestPort(); }
    uint16_t ArqRequestPort() const { return m_usArqRequestPort; }

    Impairment m_impair;
    PlainWord<int32_t> m_nDropPacket { 0 }; // packets withheld; sending threads add, the control thread reads

private:
    bool ProbeEngine();
    bool CreatePool();
    bool CreateClock();
    void CreateParts(const Settings& settings);
    void AddDestinations(const Settings& settings);
    void UseMulticast(const char* list, uint16_t unicastUdpPort);
    void CreateListeners(bool& ok, int32_t nStreams);
    void CreateOwnListeners(bool& ok);
    void ShareStreamSockets(bool& ok, const MyArqSendCB& stream, int32_t nStreams);

    static void KeepAlive(void* replicator);
    static void Status(void* replicator);

    ReceiveStats m_rx;
    TransmitStats m_tx;
    std::unique_ptr<CNetSyncVid> m_pNetSyncVid; // shared by all engines
    std::unique_ptr<PacketBufferPool> m_pPacketPool;
    const uint16_t m_usArqRequestPort; // host order
    const int32_t m_nInstance;
    std::optional<StreamKeeper> m_keeper; // from here on: empty until there is a clock
    std::optional<FanOut> m_fanOut;
    std::unique_ptr<MyArqSendCB> m_pMulticastStream; // null without a multicast destination
    std::unique_ptr<MySocketListener> m_pPingListener;
    std::unique_ptr<MySocketListener> m_pRequestListener;
    std::unique_ptr<SocketGroup> m_pSocketGroup;
    PlainWord<bool> m_bRunning { false }; // Start sets it, Stop clears it; every other thread polls it
    ThreadCrew m_crew; // keep-alive and status threads
};
