#include "fuzz/world/sent_checker.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "fuzz/world/datagrams.h"
#include "fuzz/world/require.h"
#include "replicator/my_arq_send_cb.h"

namespace {

// The wire, written down once more: what is compared with the code must not be taken from it.
constexpr size_t HEADER = 12;
constexpr size_t REQUEST = 10;
constexpr uint32_t HOLD_OFF_TICKS = 9000;
constexpr uint32_t TICKS_A_MS = 90;
constexpr std::string_view STOP = "\xDE\xAD\xBE\xEF\xBA\xBE\xFA\xCE";

uint8_t ByteAt(std::string_view bytes, size_t at)
{
    return static_cast<uint8_t>(bytes[at]);
}

uint32_t HostWord(std::string_view bytes, size_t at)
{
    return static_cast<uint32_t>(ByteAt(bytes, at) | ByteAt(bytes, at + 1) << 8);
}

bool IsChecksumRight(std::string_view request)
{
    uint32_t sum = HostWord(request, 2);
    size_t at = REQUEST;
    for (; at + 1 < request.size(); at += 2)
        sum += HostWord(request, at);
    if (at < request.size())
        sum += ByteAt(request, at);
    return (sum & 0xFFFF) == 0;
}

void PutTime(std::string& packet, uint32_t ticks)
{
    for (size_t i = 0; i < 4 && 4 + i < packet.size(); ++i)
        packet[4 + i] = static_cast<char>(ticks >> (24 - 8 * i));
}

bool IsBuilt(std::string_view datagram, std::string_view payload, uint32_t ticks)
{
    if (datagram.size() != HEADER + payload.size() || datagram.substr(HEADER) != payload)
        return false;
    std::string time(8, '\0');
    PutTime(time, ticks);
    return datagram.substr(0, 2) == "\x80\x21" && datagram.substr(4, 4) == time.substr(4, 4);
}

bool GoesTo(const MyArqSendCB& stream, const sockaddr_in& destination)
{
    return stream.AddressNet() == destination.sin_addr.s_addr
        && stream.DestinationPortNet() == destination.sin_port;
}

} // namespace

void SentChecker::Forget()
{
    for (Stored& stored : m_ring)
        stored.isThere = false;
    m_refused.Forget();
    m_bIsFirst = true;
}

void SentChecker::BeginMedia(const std::vector<std::string_view>& packets,
    std::vector<const MyArqSendCB*> streams, bool mayBeWithheld, uint32_t ticks)
{
    m_phase = Phase::Media;
    m_packets.clear();
    m_bMayBeWithheld = mayBeWithheld;
    m_streams = std::move(streams);
    m_next.assign(m_streams.size(), 0);
    m_nTicks = ticks;
    for (const std::string_view packet : packets) {
        m_packets.push_back({ std::string(packet), "", false });
        if (!m_bUdpInput)
            PutTime(m_packets.back().bytes, ticks);
    }
}

bool SentChecker::IsMadeOf(std::string_view datagram, const Packet& packet) const
{
    const size_t numbered = std::min<size_t>(8, datagram.size());
    if (!packet.first.empty()
        && datagram.substr(0, numbered) != std::string_view(packet.first).substr(0, numbered))
        return false; // all streams get the same number
    return m_bUdpInput ? IsBuilt(datagram, packet.bytes, m_nTicks) : datagram == packet.bytes;
}

// Whether the datagram is the next packet of the stream at that place, behind the stream before it. What one stream
// does not get is withheld from all.
bool SentChecker::TakePacket(size_t place, std::string_view datagram)
{
    size_t index = m_next[place];
    const auto mayLack = [this](const Packet& packet) {
        return packet.isWithheld || (m_bMayBeWithheld && packet.first.empty());
    };
    while (
        index < m_packets.size() && (m_packets[index].isWithheld || !IsMadeOf(datagram, m_packets[index]))) {
        if (!mayLack(m_packets[index++]))
            return false;
    }
    if (index == m_packets.size() || (place != 0 && !HasAll(place - 1, index + 1)))
        return false;
    for (size_t i = m_next[place]; i < index; ++i)
        m_packets[i].isWithheld = true;
    m_next[place] = index + 1;
    if (m_packets[index].first.empty())
        m_packets[index].first = datagram;
    return true;
}

// Whether the stream at that place has got what it gets of the first packets.
bool SentChecker::HasAll(size_t place, size_t packets) const
{
    sockaddr_in destination {};
    destination.sin_addr.s_addr = m_streams[place]->AddressNet();
    destination.sin_port = m_streams[place]->DestinationPortNet();
    size_t refused = m_refused.Count(destination, static_cast<int>(place));
    for (size_t i = m_next[place]; i > packets && refused > 0; --i)
        refused -= m_packets[i - 1].isWithheld ? 0 : 1;
    for (size_t i = m_next[place]; i < packets; ++i) {
        const bool mayLack = m_packets[i].isWithheld || (m_bMayBeWithheld && m_packets[i].first.empty());
        if (!mayLack)
            return false;
    }
    return refused == 0;
}

// Several streams may have one address and port.
SentChecker::Tried SentChecker::CheckMedia(std::string_view datagram, const sockaddr_in& destination)
{
    for (size_t place = 0; place < m_streams.size(); ++place) {
        if (GoesTo(*m_streams[place], destination) && TakePacket(place, datagram))
            return { place };
    }
    Require(false,
        "each stream gets each packet once, in their order and behind the streams before it, but for its "
        "time or with a header");
    return {};
}

void SentChecker::EndMedia(PacketBuffer* const* packets, const std::vector<const MyArqSendCB*>& holders)
{
    m_phase = Phase::Silence;
    Require(m_refused.IsEmpty(), "what was refused comes again");
    for (size_t place = 0; place < m_streams.size(); ++place)
        Require(HasAll(place, m_packets.size()), "every stream gets every packet");
    for (size_t i = 0; i < m_packets.size(); ++i)
        Store(m_packets[i], *packets[i], holders);
}

void SentChecker::Store(
    const Packet& packet, const PacketBuffer& buffer, const std::vector<const MyArqSendCB*>& holders)
{
    if (m_bUdpInput && packet.first.empty())
        return; // without a stream nobody has built a header
    // A packet that is shorter than its header has the rest of it in its slice.
    std::string header(reinterpret_cast<const char*>(buffer.Data()), HEADER);
    if (m_bUdpInput)
        header = packet.first;
    const auto seq = static_cast<uint16_t>(ByteAt(header, 2) << 8 | ByteAt(header, 3));
    if (std::exchange(m_bIsFirst, false))
        m_usLastSeq = static_cast<uint16_t>(seq - 1);
    Stored& stored = m_ring[seq % RING];
    stored.isThere = true;
    stored.bytes = m_bUdpInput ? packet.first : packet.bytes;
    stored.seq = seq;
    stored.ticks = m_nTicks;
    stored.requestsBefore = m_nRequests;
    stored.holders = holders;
    stored.resent.clear();
}

void SentChecker::BeginRequest(std::string_view datagram, const MyArqSendCB* stream, uint32_t ticks)
{
    m_phase = Phase::Request;
    m_pStream = stream;
    m_nTicks = ticks;
    m_nSent = 0;
    m_nSentBytes = 0;
    ReadRequest(datagram);
}

void SentChecker::ReadRequest(std::string_view datagram)
{
    datagram.remove_prefix(TagOf(datagram).size());
    m_asked = {};
    m_asked.bytes = datagram;
    if (datagram.size() < REQUEST) {
        m_asked.isEcho = datagram.size() >= 4 && datagram.substr(0, 4) == std::string_view("\0\0\xAD\xE2", 4);
        return;
    }
    m_asked.isRequest = IsChecksumRight(datagram);
    const uint32_t count = HostWord(datagram, 0);
    m_asked.isWhole = REQUEST + 2 * count <= datagram.size();
    for (size_t i = 0; m_asked.isWhole && i < count; ++i)
        m_asked.numbers.push_back(HostWord(datagram, REQUEST + 2 * i));
    const uint32_t retries = HostWord(datagram, 4);
    const uint32_t intervalMs = HostWord(datagram, 6);
    const uint32_t extraMs = HostWord(datagram, 8);
    m_asked.maxAgeTicks = ((retries + 1) * intervalMs + extraMs) * TICKS_A_MS;
    m_asked.budgetBytes = (retries * intervalMs + extraMs) * BIT_RATE / 8000;
}

void SentChecker::CheckAnswer(std::string_view datagram)
{
    Require(m_pStream != nullptr, "nobody but a stream is answered");
    if (m_asked.isRequest) {
        CheckResend(datagram);
        return;
    }
    Require(m_asked.isEcho && m_nSent == 0, "only a ping is echoed, once");
    Require(datagram == m_asked.bytes, "an echo is what came, without its tag");
}

bool SentChecker::IsAskedFor(const Stored& stored) const
{
    const std::vector<uint32_t>& numbers = m_asked.numbers;
    return !m_asked.isWhole || std::find(numbers.begin(), numbers.end(), stored.seq) != numbers.end();
}

bool SentChecker::IsResendOf(std::string_view datagram, const Stored& stored) const
{
    if (!stored.isThere || stored.bytes.size() != datagram.size())
        return false;
    for (size_t i = 0; i < datagram.size(); ++i) {
        const uint8_t was = ByteAt(stored.bytes, i);
        const uint8_t expected = i == 1 ? static_cast<uint8_t>((was & 0x80) | 0x7A) : was;
        if (ByteAt(datagram, i) != expected
            && !(m_bUdpInput && i >= 8 && i < HEADER)) // each stream's own SSRC
            return false;
    }
    return true;
}

void SentChecker::CheckResend(std::string_view datagram)
{
    m_nSentBytes += static_cast<uint32_t>(datagram.size());
    Require(m_nSentBytes <= m_asked.budgetBytes, "a request costs no more than its budget");
    for (Stored& stored : m_ring) {
        if (!IsAskedFor(stored) || !IsResendOf(datagram, stored))
            continue;
        if (static_cast<int32_t>(m_nTicks - m_asked.maxAgeTicks - stored.ticks) >= 0)
            continue;
        auto mark = std::find_if(stored.resent.begin(), stored.resent.end(),
            [this](const Resent& resent) { return resent.stream == m_pStream; });
        if (mark == stored.resent.end())
            mark = stored.resent.insert(mark, { m_pStream, m_nTicks });
        if (static_cast<int32_t>(m_nTicks - mark->notBeforeTicks) < 0)
            continue;
        mark->notBeforeTicks = m_nTicks + HOLD_OFF_TICKS;
        return;
    }
    Require(false, "a resend is a stored packet that was asked for, young enough, not held off");
}

void SentChecker::EndRequest()
{
    m_phase = Phase::Silence;
    Require(m_refused.IsEmpty(), "an answer that was refused comes again");
    Require(!(m_asked.isEcho && m_pStream != nullptr && m_pStream->m_bIsAlive) || m_nSent == 1,
        "a ping on the request port is echoed");
    Require(!MustBeAnswered() || m_nSent != 0, "what is missed is sent again");
    ++m_nRequests;
}

// Its first number is held, young and affordable, and no earlier request can have had to do with it.
bool SentChecker::MustBeAnswered() const
{
    if (!m_asked.isRequest || m_asked.numbers.empty() || m_pStream == nullptr || !m_pStream->m_bIsAlive)
        return false;
    const Stored& stored = m_ring[m_asked.numbers[0] % RING];
    const bool isHeld = stored.isThere && stored.seq == m_asked.numbers[0]
        && std::find(stored.holders.begin(), stored.holders.end(), m_pStream) != stored.holders.end();
    const bool isYoung = static_cast<int32_t>(m_nTicks - m_asked.maxAgeTicks - stored.ticks) < 0;
    return isHeld && isYoung && stored.requestsBefore == m_nRequests
        && stored.bytes.size() <= m_asked.budgetBytes;
}

void SentChecker::BeginDelete(const MyArqSendCB* stream)
{
    m_phase = Phase::Delete;
    m_pStream = stream;
    m_nSent = 0;
}

void SentChecker::EndDelete()
{
    constexpr size_t STOP_MESSAGES = 5;
    m_phase = Phase::Silence;
    Require(m_refused.IsEmpty(), "a stop message that was refused comes again");
    Require(m_nSent == (m_pStream != nullptr ? STOP_MESSAGES : 0), "who is deleted is told five times");
}

void SentChecker::OnMessage(const kernel_model::Attempt& attempt, kernel_model::Fate fate)
{
    const auto onFirst = [&](const uint8_t* bytes, size_t count) {
        return OnDatagram({ reinterpret_cast<const char*>(bytes), count }, attempt.destination);
    };
    if (m_phase == Phase::Delete && fate == kernel_model::Fate::MustComeAgain && attempt.IsNamed())
        fate = kernel_model::Fate::MayComeAgain; // a stop message never waits, and others follow
    const char* broken = m_refused.Take(attempt, fate, onFirst, [](const Tried&, size_t) {});
    Require(broken == nullptr, broken);
}

SentChecker::Tried SentChecker::OnDatagram(std::string_view datagram, const sockaddr_in& destination)
{
    Require(m_phase != Phase::Silence, "nothing is sent unasked");
    if (m_phase == Phase::Media)
        return CheckMedia(datagram, destination);
    Require(
        m_pStream != nullptr && GoesTo(*m_pStream, destination), "an answer goes to the stream's receiver");
    if (m_phase == Phase::Request)
        CheckAnswer(datagram);
    else
        Require(datagram == STOP, "who is deleted gets the stop message");
    ++m_nSent;
    return {};
}
