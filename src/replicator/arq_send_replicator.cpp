// Construction and destruction: the parts, the destinations of the command line, the listeners.
#include "replicator/arq_send_replicator.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "arq/arq_settings.h"
#include "arq/c_arq_send.h"
#include "input/address.h"
#include "pacing/ms_clock.h"

namespace {

constexpr uint32_t POOL_MARGIN = 1024; // buffers beyond what the rings refer to
constexpr uint32_t CLOCK_WINDOW = 32;
constexpr uint32_t LISTENER_POOL_SIZE = 1024; // buffers
constexpr int32_t SECOND_SOCKET_STREAMS
    = 2; // from this many interfaces on, pings have a socket to themselves

// Cuts the next destination off `*rest` that the resolver knows; null when there is none left.
const char* NextResolved(char** rest, in_addr_t* addressNet)
{
    while (const char* text = strtok_r(*rest, ",", rest)) {
        *addressNet = resolveHost(text);
        if (*addressNet != 0)
            return text;
    }
    return nullptr;
}

} // namespace

ArqSendReplicator::ArqSendReplicator(bool& ok, const Settings& settings)
    : m_nStream1Percent(settings.stream1Percent),
      m_usArqRequestPort(settings.arqRequestPort),
      m_usDestPort(settings.destPort),
      m_nGrossMediaBitrate(settings.grossMediaBitrate),
      m_nInstance(settings.instance),
      m_bUdpInputMode(settings.udpInputMode)
{
    ok = true;
    InitImpairment(m_impair);
    (void)fprintf(stderr, "Maximum output streams = %d\n", StreamTable::MAX_STREAMS);
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
    m_pSocketGroup.reset(new (std::nothrow) SocketGroup);
    AddDestinations(settings);
    CreateListeners(ok, settings.nStreams);
    (void)Start();
}

ArqSendReplicator::~ArqSendReplicator()
{
    Stop();
    m_pMulticastStream.reset();
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
    (void)printf("Number of ARQ Buffers = %d\n", g_nArqBufferCount);
    if (!m_pPacketPool)
        (void)fprintf(stderr, "ArqSendReplicator: ERROR: PacketBufferInit failed!\n");
    return m_pPacketPool != nullptr;
}

bool ArqSendReplicator::CreateClock()
{
    int32_t status = 0; // only the offset filter can fail, and nothing here uses offsets
    m_pNetSyncVid.reset(new (std::nothrow) CNetSyncVid(status, CLOCK_WINDOW));
    return m_pNetSyncVid != nullptr;
}

void ArqSendReplicator::AddDestinations(const Settings& settings)
{
    if (settings.destAddress == nullptr || *settings.destAddress == '\0')
        return;
    std::string texts(settings.destAddress); // strtok_r cuts its text
    if (settings.unicastUdpPort == 0)
        AddUnicastDestinations(texts.data(), settings.nStreams);
    else
        AddMulticastDestination(texts.data(), settings.unicastUdpPort);
}

void ArqSendReplicator::AddUnicastDestinations(char* texts, int32_t nStreams)
{
    in_addr_t addressNet = 0;
    while (const char* text = NextResolved(&texts, &addressNet)) {
        if (IsMulticast(addressNet))
            (void)printf("Error: Skipping %s, not an unicast address\n", text);
        else
            (void)AddStream(text, nStreams);
    }
}

void ArqSendReplicator::AddMulticastDestination(char* texts, uint16_t unicastUdpPort)
{
    in_addr_t addressNet = 0;
    while (const char* text = NextResolved(&texts, &addressNet)) {
        if (IsMulticast(addressNet)) {
            UseMulticast(text, unicastUdpPort);
            return;
        }
        (void)printf("Error: Skipping %s, not a multicast address\n", text);
    }
    (void)puts("Error: No multicast address");
}

// The multicast stream is not in the table: it alone gets first sendings, while the table is for the receivers
// that ping the unicast port.
void ArqSendReplicator::UseMulticast(const char* text, uint16_t unicastUdpPort)
{
    {
        const StreamTable::Lock lock(m_table);
        m_pMulticastStream = CreateConfigured(resolveHost(text), 0);
    }
    (void)printf("Multicasting to %s:%d, ", text, m_usDestPort);
    m_usDestPort = unicastUdpPort;
    (void)printf("Unicasting to %d\n", m_usDestPort);
}

void ArqSendReplicator::CreateListeners(bool& ok, int32_t nStreams)
{
    const StreamTable::View view(m_table);
    if (!SharesPorts() || view.Count() == 0)
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
            MySocketListener(*this, Mode::Pings, SharedSocket(), m_usDestPort, ok, LISTENER_POOL_SIZE));
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
        (void)fprintf(stderr, "Dupping socket %d\n", stream.SocketNumber(1));
        m_pPingListener.reset(new (std::nothrow) MySocketListener(
            *this, Mode::Requests, stream.ShareSocket(1), m_usDestPort, ok, LISTENER_POOL_SIZE));
        if (!m_pPingListener)
            ok = false;
    }
    (void)fprintf(stderr, "Dupping socket %d\n", stream.SocketNumber(0));
    m_pRequestListener.reset(new (std::nothrow) MySocketListener(
        *this, Mode::Requests, stream.ShareSocket(0), m_usArqRequestPort, ok, LISTENER_POOL_SIZE));
}
