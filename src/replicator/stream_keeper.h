#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "replicator/default_settings.h"
#include "replicator/my_arq_send_cb.h"
#include "replicator/stream_table.h"
#include "replicator/traffic_stats.h"

class NetSyncVid;
struct ArqSendStats;

// A datagram on the ping port, as far as the streams care. Address and port in network order.
struct Ping {
    in_addr_t addressNet;
    uint16_t portNet;
    uint32_t streamId; // of its tag; 0: none
    bool isStop; // the receiver leaves
};

// Keeps the output streams: creates, adds, deletes, lists and finds them, and carries out and reports what
// StreamLife decides.
//
// Threads: the listen thread calls ServePing; the control thread adds, deletes, lists and reads statistics;
// the keep-alive thread calls VisitPlace; the status thread calls DestroyRemoved. Each operation but the last
// holds the table's lock, and none of them waits for a thread that stands in a send.
class StreamKeeper {
public:
    struct Settings {
        uint16_t arqRequestPort = DEFAULT_ARQ_REQUEST_PORT;
        uint16_t destPort = DEFAULT_DEST_PORT; // where media go and pings arrive
        uint32_t stream1Percent = DEFAULT_STREAM1_PERCENT; // share of the first of two interfaces
        int32_t grossMediaBitrate = DEFAULT_GROSS_MEDIA_BITRATE; // bit/s; bounds what one request sends again
        bool udpInputMode = false; // the engines build RTP headers
    };

    // `owner` counts what the streams send; `clock` is shared by all engines. Both outlive the keeper.
    StreamKeeper(TransmitStats& owner, NetSyncVid& clock, const Settings& settings)
        : m_owner(owner),
          m_clock(clock),
          m_settings(settings)
    {
    }

    // For readers, who take a View.
    const StreamTable& Table() const { return m_table; }

    // Serves a ping: adds, starts, moves or removes the receiver's stream, or only counts it. Media that
    // start leave from a duplicate of `pingSocket`.
    void ServePing(const Ping& ping, int pingSocket, uint32_t nowMs) EXCLUDES(m_table.m_mutex);

    // Adds a configured stream to an address or host name, spread over `nInterfaces` interfaces if that is
    // not 0. Returns 1 when the stream exists afterwards, 0 for an unknown host or when it could not be
    // made. Resolving, which may block, happens outside the lock.
    int AddStream(const char* text, int32_t nInterfaces) EXCLUDES(m_table.m_mutex);

    // The stream to a multicast destination, which does not stand in the table; null as above.
    std::unique_ptr<MyArqSendCB> CreateMulticastStream(const char* text) EXCLUDES(m_table.m_mutex);

    // Tells the receiver to stop and removes its stream without ID; takes 100
    // ms. Returns 1 when there was one.
    int DeleteStream(const char* text) EXCLUDES(m_table.m_mutex);

    // Writes the streams' addresses, separated by ",", as a C text of at most `room` bytes: as many whole
    // addresses as fit. Writes nothing at all without streams. Always returns 1.
    int ListStreams(char* buffer, size_t room) EXCLUDES(m_table.m_mutex);

    // Statistics of stream `index`. Returns 1 when there is such a stream, else 0.
    int GetStreamStats(ArqSendStats* out, int32_t index) EXCLUDES(m_table.m_mutex);
    void ClearStreamStats(int32_t index) EXCLUDES(m_table.m_mutex);

    // One step of the keep-alive thread: resumes, ends or leaves alone the
    // streams at that place of the round.
    void VisitPlace(int32_t place, uint32_t nowMs) EXCLUDES(m_table.m_mutex);

    // One look after removed streams: destroys those that nobody can be using any more. Takes no lock.
    void DestroyRemoved() { m_table.DestroyRemoved(); }

    // The port that streams created from now on send to; it is also the ping port.
    uint16_t DestPort() const { return m_settings.destPort; }
    void SetDestPort(uint16_t port) { m_settings.destPort = port; } // before any thread runs

    // Requests and pings arrive on one port: all streams then send from one socket.
    bool SharesPorts() const { return m_settings.destPort == m_settings.arqRequestPort; }

private:
    std::unique_ptr<MyArqSendCB> CreateStream(in_addr_t addressNet, uint32_t streamId)
        REQUIRES(m_table.m_mutex);
    std::unique_ptr<MyArqSendCB> CreateConfigured(in_addr_t addressNet, int32_t nInterfaces)
        REQUIRES(m_table.m_mutex);
    bool HasRoom(uint32_t streamId) const REQUIRES(m_table.m_mutex);
    void GiveSocket(MyArqSendCB& stream) REQUIRES(m_table.m_mutex);
    bool CreateEngine(MyArqSendCB& stream) const;
    void Append(std::unique_ptr<MyArqSendCB> stream) REQUIRES(m_table.m_mutex);

    void AddLearnt(const Ping& ping, int pingSocket, uint32_t nowMs) REQUIRES(m_table.m_mutex);
    void VisitStream(MyArqSendCB& stream, uint32_t nowMs) REQUIRES(m_table.m_mutex);
    void StopStream(MyArqSendCB& stream) REQUIRES(m_table.m_mutex);
    void RemoveStream(MyArqSendCB& stream) REQUIRES(m_table.m_mutex);

    TransmitStats& m_owner;
    NetSyncVid& m_clock;
    Settings m_settings;
    StreamTable m_table;
};
