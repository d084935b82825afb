#include "replicator/stream_keeper.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "arq/arq_settings.h"
#include "arq/c_arq_send.h"
#include "input/address.h"
#include "pacing/ms_clock.h"
#include "replicator/log_timestamp.h"

namespace {

constexpr uint32_t FIRST_RETRIES = 2; // the window until a receiver sends its own
constexpr uint32_t FIRST_INTERVAL_MS = 200;
constexpr int STOP_MESSAGES = 5; // some of them may get lost
constexpr uint32_t STOP_MESSAGE_GAP_MS = 20;

static_assert(StreamLife::PLACES == StreamTable::MAX_STREAMS, "every position of the table is a place");

// resolveHost, with a message for a host that it does not know.
in_addr_t Resolve(const char* text)
{
    const in_addr_t addressNet = resolveHost(text);
    if (addressNet == 0)
        fprintf(stderr, "unknown host '%s'\n", text != nullptr ? text : "");
    return addressNet;
}

// Media leave from the port that the receiver pinged, so that they find their way back through its NAT.
// Without a descriptor for that the stream stays as it is, and the next ping tries again.
void StartMedia(MyArqSendCB& stream, uint16_t portNet, int pingSocket)
{
    if (!stream.AdoptSocket(pingSocket))
        return;
    LogStamped("Media started on port %d for %s ID:0x%08x\n", portNet, stream.HostText(), stream.StreamId());
    stream.SetDestinationPortNet(portNet);
    stream.m_life.OnStarted(portNet);
    stream.m_bIsAlive = true;
}

// The ports in these messages are the raw 16 bits as they came: scripts that read them expect it so.
void CarryOutPing(MyArqSendCB& stream, const Ping& ping, int pingSocket, uint32_t nowMs)
{
    const uint16_t oldPortNet = stream.m_life.MediaPortNet();
    const StreamLife::PingVerdict verdict = stream.m_life.OnPing(ping.portNet, nowMs);
    if (verdict.moved) {
        stream.m_bIsAlive = false;
        LogStamped("Media port changed from %d to %d for %s ID:0x%08x\n", oldPortNet, ping.portNet,
            stream.HostText(), stream.StreamId());
    }
    if (verdict.start)
        StartMedia(stream, ping.portNet, pingSocket);
}

void SendStopMessages(MyArqSendCB& stream)
{
    for (int i = 0; i < STOP_MESSAGES; ++i) {
        stream.SendStop();
        (void)SleepMs(STOP_MESSAGE_GAP_MS);
    }
}

} // namespace

void StreamKeeper::ServePing(const Ping& ping, int pingSocket, uint32_t nowMs)
{
    const StreamTable::Lock lock(m_table);
    MyArqSendCB* stream = m_table.Current().Find(ping.addressNet, ping.streamId);
    if (stream == nullptr && !ping.isStop)
        AddLearnt(ping, pingSocket, nowMs);
    else if (stream != nullptr && ping.isStop)
        StopStream(*stream);
    else if (stream != nullptr)
        CarryOutPing(*stream, ping, pingSocket, nowMs);
}

void StreamKeeper::AddLearnt(const Ping& ping, int pingSocket, uint32_t nowMs)
{
    std::unique_ptr<MyArqSendCB> stream = CreateStream(ping.addressNet, ping.streamId);
    if (!stream)
        return;
    LogStamped("Process Ping: Added %s stream ID:0x%08x\n", stream->HostText(), ping.streamId);
    CarryOutPing(*stream, ping, pingSocket, nowMs);
    Append(std::move(stream));
}

int StreamKeeper::AddStream(const char* text, int32_t nInterfaces)
{
    const in_addr_t addressNet = Resolve(text);
    if (addressNet == 0)
        return 0;
    const StreamTable::Lock lock(m_table);
    if (m_table.Current().Find(addressNet, 0) != nullptr)
        return 1;
    std::unique_ptr<MyArqSendCB> stream = CreateConfigured(addressNet, nInterfaces);
    if (!stream)
        return 0;
    Append(std::move(stream));
    return 1;
}

std::unique_ptr<MyArqSendCB> StreamKeeper::CreateMulticastStream(const char* text)
{
    const in_addr_t addressNet = Resolve(text);
    if (addressNet == 0)
        return nullptr;
    const StreamTable::Lock lock(m_table);
    return CreateConfigured(addressNet, 0);
}

std::unique_ptr<MyArqSendCB> StreamKeeper::CreateConfigured(in_addr_t addressNet, int32_t nInterfaces)
{
    std::unique_ptr<MyArqSendCB> stream = CreateStream(addressNet, 0);
    if (!stream)
        return nullptr;
    stream->m_life.MakeStatic();
    if (nInterfaces != 0)
        stream->BindInterfaces(nInterfaces, m_settings.stream1Percent);
    else if (!SharesPorts() && !IsMulticast(addressNet))
        stream->UseConnectedSocket();
    stream->m_bIsAlive = true;
    LogStamped("AddStream: Added %s stream ID:0x%08x\n", stream->HostText(), 0U);
    return stream;
}

int StreamKeeper::DeleteStream(const char* text)
{
    const in_addr_t addressNet = Resolve(text);
    if (addressNet == 0)
        return 0;
    const StreamTable::Lock lock(m_table);
    MyArqSendCB* stream = m_table.Current().Find(addressNet, 0);
    if (stream == nullptr)
        return 0;
    SendStopMessages(*stream);
    StopStream(*stream);
    return 1;
}

int StreamKeeper::ListStreams(char* buffer, size_t room)
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

int StreamKeeper::GetStreamStats(ArqSendStats* out, int32_t index)
{
    const StreamTable::Lock lock(m_table);
    const StreamEntries entries = m_table.Current();
    if (index < 0 || index >= entries.Count())
        return 0;
    entries.At(index).m_pEngine->GetStats(out);
    return 1;
}

void StreamKeeper::ClearStreamStats(int32_t index)
{
    const StreamTable::Lock lock(m_table);
    const StreamEntries entries = m_table.Current();
    if (index >= 0 && index < entries.Count())
        entries.At(index).m_pEngine->ClearStats();
}

// From the end: what a removal moves into the gap was looked at before.
void StreamKeeper::VisitPlace(int32_t place, uint32_t nowMs)
{
    const StreamTable::Lock lock(m_table);
    for (int32_t i = m_table.Current().Count() - 1; i >= 0; --i) {
        MyArqSendCB& stream = m_table.Current().At(i);
        if (stream.m_life.Place() == place)
            VisitStream(stream, nowMs);
    }
}

void StreamKeeper::VisitStream(MyArqSendCB& stream, uint32_t nowMs)
{
    stream.FollowRoute();
    switch (stream.m_life.OnVisit(stream.m_bIsAlive, nowMs)) {
    case StreamLife::VisitVerdict::Stays:
        break;
    case StreamLife::VisitVerdict::Resumes:
        LogStamped("Stream resumed for %s ID:0x%08x\n", stream.HostText(), stream.StreamId());
        stream.m_bIsAlive = true;
        break;
    case StreamLife::VisitVerdict::Ends:
        LogStamped("Stream suspended for %s\n", stream.HostText());
        RemoveStream(stream);
        break;
    }
}

// The caller finishes the stream and appends it to the table: the packet path meets only finished ones.
std::unique_ptr<MyArqSendCB> StreamKeeper::CreateStream(in_addr_t addressNet, uint32_t streamId)
{
    if (!HasRoom(streamId))
        return nullptr;
    std::unique_ptr<MyArqSendCB> stream(
        new (std::nothrow) MyArqSendCB(m_owner, addressNet, m_settings.destPort, streamId));
    if (!stream)
        return nullptr;
    GiveSocket(*stream);
    return CreateEngine(*stream) ? std::move(stream) : nullptr;
}

bool StreamKeeper::HasRoom(uint32_t streamId) const
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

void StreamKeeper::GiveSocket(MyArqSendCB& stream)
{
    const StreamEntries entries = m_table.Current();
    if (!SharesPorts() || entries.Count() == 0) {
        stream.OpenSocket();
        return;
    }
    const SharedSocket socket = entries.At(0).ShareSocket(0);
    fprintf(stderr, "Dupping socket %d for stream %d\n", socket.Get(), entries.Count());
    stream.BorrowSocket(socket);
}

// The engine puts itself into the stream, which owns it from then on: the analyzer cannot see that.
// NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks)
bool StreamKeeper::CreateEngine(MyArqSendCB& stream) const
{
    bool ok = true;
    auto* engine = new (std::nothrow) CArqSend(ok, &m_clock, &stream, FIRST_RETRIES, FIRST_INTERVAL_MS,
        static_cast<uint32_t>(g_nArqBufferCount), static_cast<uint32_t>(m_settings.grossMediaBitrate),
        m_settings.udpInputMode);
    if (engine == nullptr || !ok)
        return false;
    engine->SetDebug(0);
    return true;
}
// NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)

// A stream is looked at with the table position that it joins at; where nothing leaves, that is one a look.
void StreamKeeper::Append(std::unique_ptr<MyArqSendCB> stream)
{
    stream->m_life.TakePlace(m_table.Current().Count());
    m_table.Append(std::move(stream));
}

void StreamKeeper::StopStream(MyArqSendCB& stream)
{
    if (stream.m_bIsAlive)
        LogStamped("Stream stopped for %s ID:0x%08x\n", stream.HostText(), stream.StreamId());
    RemoveStream(stream);
}

void StreamKeeper::RemoveStream(MyArqSendCB& stream)
{
    stream.Leave();
    int32_t index = 0;
    if (m_table.Current().FindIndex(&stream, &index))
        m_table.Remove(index);
}
