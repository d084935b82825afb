// Streams come and go: configured by address, learnt from pings, stopped, deleted.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "arq/arq_settings.h"
#include "arq/c_arq_send.h"
#include "arq/datagram_kind.h"
#include "arq/wire.h"
#include "input/address.h"
#include "pacing/ms_clock.h"
#include "replicator/arq_send_replicator.h"
#include "replicator/log_timestamp.h"

namespace {

constexpr uint32_t FIRST_RETRIES = 2; // the window until a receiver sends its own
constexpr uint32_t FIRST_INTERVAL_MS = 200;
constexpr int STOP_MESSAGES = 5; // some of them may get lost
constexpr uint32_t STOP_MESSAGE_GAP_MS = 20;

// The tag is told by its stream ID: one with ID 0 is left where it is.
void StripTag(PacketBuffer* packet)
{
    const int32_t length = packet->Length() - STREAM_TAG_BYTES;
    std::memmove(packet->Data(), packet->Data() + STREAM_TAG_BYTES, static_cast<size_t>(length));
    packet->SetLength(length);
}

} // namespace

int ArqSendReplicator::ProcessRequest(
    PacketBuffer* packet, in_addr_t addressNet, uint16_t /*portNet*/, uint32_t streamId)
{
    const StreamTable::View view(m_table);
    const MyArqSendCB* stream = view.Find(addressNet, streamId);
    if (stream == nullptr)
        return 1;
    if (streamId != 0)
        StripTag(packet);
    (void)stream->m_pEngine->ProcessBuffer(packet);
    return 1;
}

int ArqSendReplicator::ProcessPing(
    PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet, uint32_t streamId)
{
    const bool isStop = ReadStreamTag(packet->Data(), packet->Length()).isLeave;
    const StreamTable::Lock lock(m_table);
    MyArqSendCB* stream = m_table.Current().Find(addressNet, streamId);
    if (isStop) {
        RemoveStream(stream);
        return 1;
    }
    if (stream == nullptr) {
        AddLearntStream(addressNet, portNet, streamId);
        return 1;
    }
    ServePing(*stream, portNet);
    return 1;
}

void ArqSendReplicator::AddLearntStream(in_addr_t addressNet, uint16_t portNet, uint32_t streamId)
{
    std::unique_ptr<MyArqSendCB> stream = CreateStream(addressNet, streamId);
    if (!stream)
        return;
    {
        const StampedLine line;
        (void)fprintf(stderr, "Process Ping: Added %s stream ID:0x%08x\n", stream->HostText(), streamId);
    }
    ServePing(*stream, portNet);
    m_table.Append(std::move(stream));
}

// The ports in these messages are the raw 16 bits as they came: scripts that read them expect it so.
void ArqSendReplicator::ServePing(MyArqSendCB& stream, uint16_t portNet)
{
    if (!stream.m_bStatic) {
        if (stream.m_bMediaStarted && portNet != stream.m_usMediaPortNet) {
            stream.m_bMediaStarted = false;
            stream.m_bIsAlive = 0;
            const StampedLine line;
            (void)fprintf(stderr, "Media port changed from %d to %d for %s ID:0x%08x\n",
                stream.m_usMediaPortNet, portNet, stream.HostText(), stream.StreamId());
        }
        if (!stream.m_bMediaStarted)
            StartMedia(stream, portNet);
    }
    ++stream.m_nPingCount;
}

// Media leave from the port that the receiver pinged, so that they find their way back through its NAT.
void ArqSendReplicator::StartMedia(MyArqSendCB& stream, uint16_t portNet)
{
    {
        const StampedLine line;
        (void)fprintf(stderr, "Media started on port %d for %s ID:0x%08x\n", portNet, stream.HostText(),
            stream.StreamId());
    }
    if (m_pPingListener) {
        (void)stream.AdoptSocket(
            m_pPingListener->Socket()); // nobody sent on what it may have borrowed before
    }
    stream.SetDestinationPortNet(portNet);
    stream.m_bMediaStarted = true;
    stream.m_usMediaPortNet = portNet;
    stream.m_bIsAlive = 1;
}

int ArqSendReplicator::AddStream(const char* text, int32_t nInterfaces)
{
    const in_addr_t addressNet = resolveHost(text);
    if (addressNet == 0) {
        (void)fprintf(stderr, "unknown host '%s'\n", text != nullptr ? text : "");
        return 0;
    }
    const StreamTable::Lock lock(m_table);
    if (m_table.Current().Find(addressNet, 0) != nullptr)
        return 1;
    std::unique_ptr<MyArqSendCB> stream = CreateConfigured(addressNet, nInterfaces);
    if (!stream)
        return 0;
    m_table.Append(std::move(stream));
    return 1;
}

std::unique_ptr<MyArqSendCB> ArqSendReplicator::CreateConfigured(in_addr_t addressNet, int32_t nInterfaces)
{
    std::unique_ptr<MyArqSendCB> stream = CreateStream(addressNet, 0);
    if (!stream)
        return nullptr;
    stream->m_bMediaStarted = true;
    stream->m_bStatic = true;
    if (nInterfaces != 0)
        stream->BindInterfaces(nInterfaces, m_nStream1Percent);
    stream->m_bIsAlive = 1;
    {
        const StampedLine line;
        (void)fprintf(stderr, "AddStream: Added %s stream ID:0x%08x\n", stream->HostText(), 0U);
    }
    return stream;
}

int ArqSendReplicator::DeleteStream(const char* text)
{
    const in_addr_t addressNet = resolveHost(text);
    if (addressNet == 0) {
        (void)fprintf(stderr, "unknown host '%s'\n", text != nullptr ? text : "");
        return 0;
    }
    const StreamTable::Lock lock(m_table);
    MyArqSendCB* stream = m_table.Current().Find(addressNet, 0);
    if (stream == nullptr)
        return 0;
    SendStopMessages(*stream);
    RemoveStream(stream);
    return 1;
}

void ArqSendReplicator::SendStopMessages(MyArqSendCB& stream)
{
    for (int i = 0; i < STOP_MESSAGES; ++i) {
        stream.SendStop();
        (void)SleepMs(STOP_MESSAGE_GAP_MS);
    }
}

int ArqSendReplicator::ListStreams(char* buffer, size_t room)
{
    const StreamTable::Lock lock(m_table);
    size_t used = 0;
    m_table.Current().ForEach([&](const MyArqSendCB& stream) {
        const char* comma = used == 0 ? "" : ",";
        const size_t wanted = std::strlen(comma) + std::strlen(stream.HostText());
        if (used + wanted < room)
            used += static_cast<size_t>(
                snprintf(buffer + used, room - used, "%s%s", comma, stream.HostText()));
    });
    return 1;
}

int ArqSendReplicator::GetStreamStats(ArqSendStats* out, int32_t index)
{
    const StreamTable::Lock lock(m_table);
    if (index < 0 || index >= m_table.Current().Count())
        return 0;
    m_table.Current().At(index).m_pEngine->GetStats(out);
    return 1;
}

void ArqSendReplicator::ClearStreamStats(int32_t index)
{
    const StreamTable::Lock lock(m_table);
    if (index >= 0 && index < m_table.Current().Count())
        m_table.Current().At(index).m_pEngine->ClearStats();
}

// The caller finishes the stream and appends it to the table: the packet path meets only finished ones.
std::unique_ptr<MyArqSendCB> ArqSendReplicator::CreateStream(in_addr_t addressNet, uint32_t streamId)
{
    if (!HasRoom(streamId))
        return nullptr;
    std::unique_ptr<MyArqSendCB> stream(
        new (std::nothrow) MyArqSendCB(m_tx, addressNet, m_usDestPort, streamId));
    if (!stream)
        return nullptr;
    if (SharesPorts() && m_table.Current().Count() > 0) {
        const SharedSocket socket = m_table.Current().At(0).ShareSocket(0);
        (void)fprintf(stderr, "Dupping socket %d for stream %d\n", socket.Get(), m_table.Current().Count());
        stream->BorrowSocket(socket);
    } else {
        stream->OpenSocket();
    }
    if (!CreateEngine(*stream))
        return nullptr;
    return stream;
}

bool ArqSendReplicator::HasRoom(uint32_t streamId) const
{
    if (!m_table.HasPlace()) {
        LogStamped("Stream not added, no more available streams, ID:0x%08x\n", streamId);
        return false;
    }
    if (!m_table.HasFreeState()) { // receivers that take nothing hold up what has left
        LogStamped("Stream not added, too many streams wait to be destroyed, ID:0x%08x\n", streamId);
        return false;
    }
    return true;
}

// The engine puts itself into the stream, which owns it from then on: the analyzer cannot see that.
// NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks)
bool ArqSendReplicator::CreateEngine(MyArqSendCB& stream)
{
    bool ok = true;
    auto* engine = new (std::nothrow) CArqSend(ok, m_pNetSyncVid.get(), &stream, FIRST_RETRIES,
        FIRST_INTERVAL_MS, static_cast<uint32_t>(g_nArqBufferCount),
        static_cast<uint32_t>(m_nGrossMediaBitrate), m_bUdpInputMode);
    if (engine == nullptr || !ok)
        return false;
    engine->SetDebug(0);
    return true;
}
// NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)

void ArqSendReplicator::RemoveStream(MyArqSendCB* stream)
{
    if (stream == nullptr)
        return;
    stream->m_nPingCount = 0;
    if (stream->m_bIsAlive) {
        const StampedLine line;
        (void)fprintf(stderr, "Stream stopped for %s ID:0x%08x\n", stream->HostText(), stream->StreamId());
    }
    DiscardStream(*stream);
}

// Destroys the stream once no thread of the packet path can still be using it.
void ArqSendReplicator::DiscardStream(const MyArqSendCB& stream)
{
    int32_t index = 0;
    if (m_table.Current().FindIndex(&stream, &index))
        m_table.Remove(index);
}
