#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "arq/c_net_sync_vid.h"
#include "base/mutex.h"
#include "base/plain_word.h"
#include "control/impairment.h"
#include "input/packet_buffer.h"
#include "replicator/my_arq_send_cb.h"
#include "replicator/my_socket_listener.h"
#include "replicator/socket_group.h"
#include "replicator/stream_table.h"
#include "replicator/thread_crew.h"
#include "replicator/traffic_stats.h"

struct ArqSendStats;

// The heart of the proxy: numbers or re-stamps each input packet, sends it to every output stream and
// remembers it in every stream's ARQ engine; owns the streams, the packet pool, the media clock and the
// listeners for pings and requests.
//
// Threads: main or the pacer's timer calls SendPacket (both, with pacing); the listen thread calls
// ProcessPing and ProcessRequest; the control thread adds, deletes, lists, reads and resets statistics;
// the keep-alive thread calls VisitPosition and the status thread SampleBitrates. The table's lock guards changes
// of the stream table and the streams' liveness; the packet path and requests take no lock at all.
class ArqSendReplicator {
public:
    struct Settings {
        uint16_t arqRequestPort = 7020; // where receivers send their requests
        uint16_t destPort = 10000; // where media go and pings arrive
        const char* destAddress = nullptr; // destinations, separated by ","; may be null or empty
        bool udpInputMode = false; // the input has no RTP headers: build them
        int32_t nStreams = 0; // interfaces per configured stream; 0: leave it to routing
        uint32_t stream1Percent = 50; // share of the first of two interfaces
        int32_t grossMediaBitrate = 50000000; // bit/s; bounds what one request sends again
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

    // Sends one input packet to every stream and stores it in every engine. The packet stays with the
    // engines until as many newer ones have come as they keep. Always returns 1.
    int SendPacket(PacketBuffer* packet);

    // The same for a raw payload, which gets its RTP header here. Always returns 1.
    int SendRaw(uint8_t* data, int32_t length);

    // A datagram from a receiver, with the stream ID of its tag (0: none). Address and port in network
    // order. Always return 1.
    int ProcessPing(PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet, uint32_t streamId)
        EXCLUDES(m_table.m_mutex);
    int ProcessRequest(PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet, uint32_t streamId);

    // Adds a configured stream to an address or host name, spread over `nInterfaces` interfaces if that is
    // not 0. Returns 1 when the stream exists afterwards, 0 for an unknown host or when it could not be
    // made. Resolving, which may block, happens outside the lock.
    int AddStream(const char* text, int32_t nInterfaces) EXCLUDES(m_table.m_mutex);

    // Tells the receiver to stop and removes its configured stream; takes 100 ms. Returns 1 when there was
    // one.
    int DeleteStream(const char* text) EXCLUDES(m_table.m_mutex);

    // Writes the streams' addresses, separated by ",", as a C text of at most `room` bytes: as many whole
    // addresses as fit. Writes nothing at all without streams. Always returns 1.
    int ListStreams(char* buffer, size_t room) EXCLUDES(m_table.m_mutex);

    // Statistics of stream `index`. Returns 1 when there is such a stream, else 0.
    int GetStreamStats(ArqSendStats* out, int32_t index) EXCLUDES(m_table.m_mutex);
    void ClearStreamStats(int32_t index) EXCLUDES(m_table.m_mutex);

    void ResetRxStats() { m_rx.Reset(); }
    void ResetTxStats() { m_tx.Reset(); }
    const ReceiveStats& RxStats() const { return m_rx; }
    const TransmitStats& TxStats() const { return m_tx; }

    // Writes the debug dump to standard error.
    void DebugDump() const;

    // One step of the keep-alive thread: resumes, suspends or leaves alone the stream at that position.
    void VisitPosition(int32_t position) EXCLUDES(m_table.m_mutex);

    // One step of the status thread: turns the byte counts since `thenUs` into bit rates. Both times are the
    // low 32 bits of a microsecond clock.
    void SampleBitrates(uint32_t nowUs, uint32_t thenUs);

    PacketBufferPool& PacketPool() { return *m_pPacketPool; }
    const StreamTable& Streams() const { return m_table; }
    const MyArqSendCB* MulticastStream() const { return m_pMulticastStream.get(); }
    uint16_t DestPort() const { return m_usDestPort; }
    uint16_t ArqRequestPort() const { return m_usArqRequestPort; }

    Impairment m_impair;
    PlainWord<int32_t> m_nDropPacket { 0 }; // packets withheld; sending threads add, the control thread reads

private:
    bool ProbeEngine();
    bool CreatePool();
    bool CreateClock();
    void AddDestinations(const Settings& settings);
    void AddUnicastDestinations(char* texts, int32_t nStreams);
    void AddMulticastDestination(char* texts, uint16_t unicastUdpPort);
    void UseMulticast(const char* text, uint16_t unicastUdpPort);
    void CreateListeners(bool& ok, int32_t nStreams);
    void CreateOwnListeners(bool& ok);
    void ShareStreamSockets(bool& ok, const MyArqSendCB& stream, int32_t nStreams);
    int32_t CountStreams() const;
    bool SharesPorts() const { return m_usDestPort == m_usArqRequestPort; }

    bool DecideDrop();
    void SendToAll(const StreamTable::View& view, PacketBuffer* packet);
    void SendRawMulticast(
        const StreamTable::View& view, uint8_t* data, int32_t length, uint16_t seq, bool isDropped);

    std::unique_ptr<MyArqSendCB> CreateStream(in_addr_t addressNet, uint32_t streamId)
        REQUIRES(m_table.m_mutex);
    std::unique_ptr<MyArqSendCB> CreateConfigured(in_addr_t addressNet, int32_t nInterfaces)
        REQUIRES(m_table.m_mutex);
    void AddLearntStream(in_addr_t addressNet, uint16_t portNet, uint32_t streamId) REQUIRES(m_table.m_mutex);
    void RemoveStream(MyArqSendCB* stream) REQUIRES(m_table.m_mutex);
    void DiscardStream(const MyArqSendCB& stream) REQUIRES(m_table.m_mutex);
    bool CreateEngine(MyArqSendCB& stream);
    void ServePing(MyArqSendCB& stream, uint16_t portNet) REQUIRES(m_table.m_mutex);
    void StartMedia(MyArqSendCB& stream, uint16_t portNet) REQUIRES(m_table.m_mutex);
    void SendStopMessages(MyArqSendCB& stream) REQUIRES(m_table.m_mutex);

    bool HasRoom(uint32_t streamId) const REQUIRES(m_table.m_mutex);

    static void KeepAlive(void* replicator);
    static void Status(void* replicator);

    ReceiveStats m_rx;
    TransmitStats m_tx;
    std::unique_ptr<CNetSyncVid> m_pNetSyncVid; // shared by all engines
    StreamTable m_table;
    uint32_t m_nStream1Percent;
    std::unique_ptr<PacketBufferPool> m_pPacketPool;
    uint16_t m_usArqRequestPort; // host order, as the next
    uint16_t m_usDestPort; // also the ping port; becomes the unicast port beside a multicast destination
    int32_t m_nGrossMediaBitrate; // bit/s
    int32_t m_nInstance;
    std::unique_ptr<MyArqSendCB> m_pMulticastStream; // null without a multicast destination; not in the table
    // Last number given in UDP input mode. Not a PlainWord: with pacing two threads draw numbers, and no
    // number may be given twice.
    std::atomic<uint16_t> m_usSeqNum { 0 };
    bool m_bUdpInputMode;
    std::unique_ptr<MySocketListener> m_pPingListener;
    std::unique_ptr<MySocketListener> m_pRequestListener;
    std::unique_ptr<SocketGroup> m_pSocketGroup;
    PlainWord<uint8_t> m_bRunning { 0 }; // Start sets it, Stop clears it; every other thread polls it
    ThreadCrew m_crew; // keep-alive and status threads
};
