// The parts, the order in which they are built and destroyed, and who is called for what.
#include "replicator/arq_send_replicator.h"

#include <cstdio>
#include <cstdlib>
#include <new>

#include "arq/arq_settings.h"
#include "arq/c_arq_send.h"
#include "arq/datagram_kind.h"
#include "pacing/ms_clock.h"
#include "replicator/destinations.h"

namespace {

constexpr uint32_t POOL_MARGIN = 1024; // buffers beyond what the rings refer to
constexpr uint32_t CLOCK_WINDOW = 32;
constexpr uint32_t LISTENER_POOL_SIZE = 1024; // buffers
// From this many interfaces on, pings have a socket to themselves.
constexpr int32_t SECOND_SOCKET_STREAMS = 2;

} // namespace

ArqSendReplicator::ArqSendReplicator(bool& ok, const Settings& settings)
    : m_usArqRequestPort(settings.arqRequestPort),
      m_nInstance(settings.instance)
{
    ok = true;
    InitImpairment(m_impair);
    fprintf(stderr, "Maximum output streams = %d\n", StreamTable::MAX_STREAMS);
    if (!ProbeEngine()) {
        ok = false;
        return;
    }
    srand(GetTimeMs()); // the random gaps of the impairment draw from rand
    ResetRxStats();
    ResetTxStats();
    if (!CreatePool() || !CreateClock()) {
        ok = false;
        return;
    }
    CreateParts(settings);
    AddDestinations(settings);
    CreateListeners(ok, settings.nStreams);
    (void)Start();
}

// The streams go before the clock, which their engines use, and before the pool, which holds their packets.
ArqSendReplicator::~ArqSendReplicator()
{
    Stop();
    m_fanOut.reset();
    m_pMulticastStream.reset();
    m_keeper.reset();
    m_pNetSyncVid.reset();
    m_pSocketGroup.reset();
    m_pPingListener.reset();
    m_pRequestListener.reset();
    m_pPacketPool.reset();
}

// A throw-away engine shows before anything else whether engines can be made at all.
bool ArqSendReplicator::ProbeEngine()
{
    constexpr uint32_t PROBE_RING = 2;
    bool ok = true;
    ArqSend* engine = new (std::nothrow) CArqSend(ok, nullptr, nullptr, 0, 0, PROBE_RING, 0, false);
    DestroyEngine(engine);
    return engine != nullptr && ok;
}

bool ArqSendReplicator::CreatePool()
{
    m_pPacketPool = PacketBufferPool::createDefault(static_cast<uint32_t>(g_nArqBufferCount) + POOL_MARGIN);
    printf("Number of ARQ Buffers = %d\n", g_nArqBufferCount);
    if (!m_pPacketPool)
        fprintf(stderr, "ArqSendReplicator: ERROR: PacketBufferInit failed!\n");
    return m_pPacketPool != nullptr;
}

bool ArqSendReplicator::CreateClock()
{
    int32_t status = 0; // only the offset filter can fail, and nothing here uses offsets
    m_pNetSyncVid.reset(new (std::nothrow) CNetSyncVid(status, CLOCK_WINDOW));
    return m_pNetSyncVid != nullptr;
}

void ArqSendReplicator::CreateParts(const Settings& settings)
{
    const StreamKeeper::Settings streams {
        .arqRequestPort = settings.arqRequestPort,
        .destPort = settings.destPort,
        .stream1Percent = settings.stream1Percent,
        .grossMediaBitrate = settings.grossMediaBitrate,
        .udpInputMode = settings.udpInputMode,
    };
    m_keeper.emplace(m_tx, *m_pNetSyncVid, streams);
    m_fanOut.emplace(FanOut::Parts {
        .table = m_keeper->Table(),
        .clock = *m_pNetSyncVid,
        .rx = m_rx,
        .impair = m_impair,
        .nDropPacket = m_nDropPacket,
        .bRunning = m_bRunning,
        .udpInputMode = settings.udpInputMode,
    });
    m_pSocketGroup.reset(new (std::nothrow) SocketGroup);
}

void ArqSendReplicator::AddDestinations(const Settings& settings)
{
    const char* list = settings.destAddress;
    if (list == nullptr || *list == '\0')
        return;
    if (settings.unicastUdpPort == 0)
        ForEachUnicast(list, [&](const char* text) { (void)AddStream(text, settings.nStreams); });
    else
        UseMulticast(list, settings.unicastUdpPort);
}

// The multicast stream alone gets first sendings, while the table is for the receivers that ping the unicast
// port.
void ArqSendReplicator::UseMulticast(const char* list, uint16_t unicastUdpPort)
{
    const Destination group = FirstMulticast(list);
    if (group.text[0] == '\0')
        return;
    m_pMulticastStream = m_keeper->CreateMulticastStream(group.text);
    m_fanOut->UseMulticast(m_pMulticastStream.get());
    printf("Multicasting to %s:%d, ", group.text, DestPort());
    m_keeper->SetDestPort(unicastUdpPort);
    printf("Unicasting to %d\n", DestPort());
}

void ArqSendReplicator::CreateListeners(bool& ok, int32_t nStreams)
{
    const StreamTable::View view(Streams());
    if (!m_keeper->SharesPorts() || view.Count() == 0)
        CreateOwnListeners(ok);
    else
        ShareStreamSockets(ok, view.At(0), nStreams);
    if (!m_pRequestListener)
        ok = false;
}

void ArqSendReplicator::CreateOwnListeners(bool& ok)
{
    using Mode = MySocketListener::Mode;
    m_pPingListener.reset(new (std::nothrow)
            MySocketListener(*this, Mode::Pings, SharedSocket(), DestPort(), ok, LISTENER_POOL_SIZE));
    if (!m_pPingListener)
        ok = false;
    m_pRequestListener.reset(new (std::nothrow) MySocketListener(
        *this, Mode::Requests, SharedSocket(), m_usArqRequestPort, ok, LISTENER_POOL_SIZE));
}

// With equal ports requests are read from the very sockets that send the media.
void ArqSendReplicator::ShareStreamSockets(bool& ok, const MyArqSendCB& stream, int32_t nStreams)
{
    using Mode = MySocketListener::Mode;
    if (nStreams >= SECOND_SOCKET_STREAMS) {
        fprintf(stderr, "Dupping socket %d\n", stream.SocketNumber(1));
        m_pPingListener.reset(new (std::nothrow) MySocketListener(
            *this, Mode::Requests, stream.ShareSocket(1), DestPort(), ok, LISTENER_POOL_SIZE));
        if (!m_pPingListener)
            ok = false;
    }
    fprintf(stderr, "Dupping socket %d\n", stream.SocketNumber(0));
    m_pRequestListener.reset(new (std::nothrow) MySocketListener(
        *this, Mode::Requests, stream.ShareSocket(0), m_usArqRequestPort, ok, LISTENER_POOL_SIZE));
}

int ArqSendReplicator::ProcessPing(
    PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet, uint32_t streamId)
{
    const bool isStop = ReadStreamTag(packet->Data(), packet->Length()).isLeave;
    const int pingSocket = m_pPingListener ? m_pPingListener->Socket() : -1;
    m_keeper->ServePing({ addressNet, portNet, streamId, isStop }, pingSocket, m_pSocketGroup->HeardMs());
    return 1;
}

int ArqSendReplicator::ProcessRequest(PacketBuffer* packet, in_addr_t addressNet, uint16_t /*portNet*/,
    uint32_t streamId, const RequestTime& time)
{
    m_fanOut->WaitForBatch(); // what this receiver misses may be in it
    RouteRequest(Streams(), packet, addressNet, streamId, time);
    return 1;
}

void ArqSendReplicator::SampleBitrates(uint32_t nowUs, uint32_t thenUs)
{
    m_tx.m_nTxBitrate = BitRate(m_tx.m_nTxBytes, nowUs, thenUs);
    m_rx.m_nRxBitrate = BitRate(m_rx.m_nRxBytes, nowUs, thenUs);
    m_tx.m_nTxBytes = 0;
    m_rx.m_nRxBytes = 0;
}

void ArqSendReplicator::DebugDump() const
{
    const StreamTable::View view(Streams());
    fprintf(stderr, "\n");
    fprintf(stderr, "m_bRunning %d\n", m_bRunning.Load());
    fprintf(stderr, "m_usSeqNum %d\n", m_fanOut->SeqNum());
    fprintf(stderr, "m_nNumStreams %d\n", view.Count());
    fprintf(stderr, "m_impair.m_mode %d\n", m_impair.m_mode.Load());
    fprintf(stderr, "m_impair.m_dist.m_value %d\n", m_impair.m_dist.m_value.Load());
    fprintf(stderr, "m_impair.m_burst.m_value %d\n", m_impair.m_burst.m_value.Load());
    fprintf(stderr, "m_nDropPacket %d\n", m_nDropPacket.Load());
}
