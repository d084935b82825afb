// What receivers and control clients do to the world, and what must hold of its streams.
#include "fuzz/world/world.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "control/commands.h"
#include "fuzz/world/require.h"
#include "input/address.h"
#include "replicator/my_arq_send_cb.h"

void World::SendRequest(std::string_view datagram, in_addr_t addressNet, uint16_t portNet)
{
    datagram = datagram.substr(0, PacketBufferPool::SLICE_BYTES);
    m_sent.BeginRequest(datagram, Find(addressNet, StreamIdOf(datagram)), m_kernel.Ticks());
    Require(m_kernel.Deliver(REQUEST_PORT, datagram, addressNet, portNet), "the request port is open");
    m_sent.EndRequest();
}

void World::SendPing(std::string_view datagram, in_addr_t addressNet, uint16_t portNet)
{
    if (SharesPorts()) {
        SendRequest(datagram, addressNet, portNet); // there is no ping port
        return;
    }
    const uint32_t streamId = StreamIdOf(datagram);
    MyArqSendCB* before = Find(addressNet, streamId);
    Require(
        m_kernel.Deliver(m_replicator->DestPort(), datagram, addressNet, portNet), "the ping port is open");
    if (IsLeave(datagram)) {
        Require(before == nullptr || !IsThere(before), "who leaves is gone");
        m_pings.erase(before);
    } else {
        NotePing(addressNet, portNet, streamId);
    }
}

void World::NotePing(in_addr_t addressNet, uint16_t portNet, uint32_t streamId)
{
    const MyArqSendCB* stream = Find(addressNet, streamId);
    if (stream != nullptr) {
        m_pings[stream] = m_kernel.fibers.NowMs();
        Require(stream->m_life.IsStatic() || (stream->m_bIsAlive && stream->DestinationPortNet() == portNet),
            "media go to the port that pinged last");
        return;
    }
    const StreamTable::View view(m_replicator->Streams());
    const int32_t freeStates = StreamTable::MAX_WAITING - m_replicator->Streams().Waiting();
    Require(view.Count() == StreamTable::MAX_STREAMS || freeStates <= view.Count(),
        "who pings has a stream while there is room");
}

bool World::IsThere(const MyArqSendCB* wanted) const
{
    bool found = false;
    const StreamTable::View view(m_replicator->Streams());
    view.ForEach([&](const MyArqSendCB& stream) { found = found || &stream == wanted; });
    return found;
}

void World::Advance(uint32_t ms)
{
    m_kernel.Advance(ms);
    CheckPings();
}

// Pings at most 4.9 s apart keep a stream, 10 s of silence and one look end it.
void World::CheckPings()
{
    constexpr uint64_t KEPT_MS = 4900;
    constexpr uint64_t ENDED_MS = 10100;
    const uint64_t nowMs = m_kernel.fibers.NowMs();
    for (auto it = m_pings.begin(); it != m_pings.end();) {
        const bool isThere = IsThere(it->first);
        Require(isThere || nowMs - it->second > KEPT_MS, "who pings stays");
        it = isThere ? std::next(it) : m_pings.erase(it);
    }
    if (SharesPorts())
        return;
    const StreamTable::View view(m_replicator->Streams());
    view.ForEach([&](const MyArqSendCB& stream) {
        const auto found = m_pings.find(&stream);
        if (stream.m_life.IsStatic())
            return;
        Require(found != m_pings.end() && nowMs - found->second <= ENDED_MS, "who is silent is gone");
    });
}

void World::CheckStreams()
{
    const StreamTable::View view(m_replicator->Streams());
    Require(view.Count() <= StreamTable::MAX_STREAMS, "the table has no more entries than it may");
    for (int32_t i = 0; i < view.Count(); ++i) {
        for (int32_t k = 0; k < i; ++k) {
            const bool isSame = view.At(i).StreamId() == view.At(k).StreamId()
                && (view.At(i).StreamId() != 0 || view.At(i).AddressNet() == view.At(k).AddressNet());
            Require(!isSame, "no receiver has two streams");
        }
    }
}

std::string_view World::Command(const char* request)
{
    constexpr std::string_view DELETE = "Delete";
    static Reply reply;
    std::memset(reply.text, '\xFF', sizeof(reply.text)); // what an earlier client was told is not told again
    const std::string_view text(request);
    const size_t start = std::min(text.find_first_not_of(' '), text.size());
    const bool isDelete = text.substr(start, text.find(' ', start) - start) == DELETE;
    MyArqSendCB* deleted = nullptr;
    if (isDelete) {
        const size_t argument = std::min(text.find_first_not_of(' ', start + DELETE.size()), text.size());
        const std::string host(text.substr(argument, text.find(' ', argument) - argument));
        const in_addr_t addressNet = resolveHost(host.c_str());
        deleted = addressNet != 0 ? Find(addressNet, 0) : nullptr;
        m_sent.BeginDelete(deleted);
    }
    CarryOutCommand(*m_replicator, request, reply);
    if (isDelete) {
        m_sent.EndDelete();
        Require(deleted == nullptr || !IsThere(deleted), "what was deleted is gone");
        m_pings.erase(deleted);
    }
    const size_t length = strnlen(reply.text, sizeof(reply.text));
    Require(length < sizeof(reply.text), "a reply ends");
    return { reply.text, length };
}

in_addr_t World::Address(InputReader& input)
{
    constexpr uint8_t FEW = 14;
    constexpr uint8_t LOOPBACK = 14;
    const uint8_t which = input.Byte() & 15;
    if (which < FEW)
        return htonl(0xC0000200U + which);
    return which == LOOPBACK ? htonl(INADDR_LOOPBACK) : input.Long();
}
