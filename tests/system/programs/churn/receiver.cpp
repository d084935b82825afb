#include "receiver.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>

namespace {

constexpr unsigned BATCH = 64;
constexpr size_t MOST_ECHOES_OPEN = 100; // older ones come no more

} // namespace

Receiver::Receiver(World& world, uint8_t index, const sockaddr_in& address, uint32_t streamId)
    : m_world(world),
      m_nIndex(index),
      m_address(address),
      m_nStreamId(streamId),
      m_current { Udp(address), 0, 0 }
{
}

bool Receiver::Read()
{
    bool isMore = m_old && ReadPort(*m_old);
    isMore |= ReadPort(m_current);
    return isMore;
}

bool Receiver::ReadPort(Port& port)
{
    static uint8_t data[BATCH][2048];
    mmsghdr messages[BATCH] = {};
    iovec parts[BATCH];
    for (unsigned i = 0; i < BATCH; ++i) {
        parts[i] = { data[i], sizeof(data[i]) };
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int count = recvmmsg(port.socket.Get(), messages, BATCH, MSG_DONTWAIT, nullptr);
    for (int i = 0; i < count; ++i)
        Take(data[i], messages[i].msg_len, port);
    return count == static_cast<int>(BATCH);
}

void Receiver::Take(const uint8_t* data, size_t size, Port& port)
{
    ++m_world.tally.datagrams;
    if (IsStopMessage(data, size))
        return TakeStop();
    if (size < SHORT_DATAGRAM)
        return TakeEcho(data, size);
    Media media {};
    if (const char* wrong = ReadMedia(data, size, &media))
        return Fault("a datagram of %zu bytes to receiver %u %s", size, m_nIndex, wrong);
    if (media.number > m_world.source.Sent())
        return Fault("receiver %u got packet %lu, which was not sent", m_nIndex, media.number);
    m_world.CheckStamp(media.number, media.timestamp);
    if (media.isResend)
        TakeResend(media.number);
    else
        TakeFirst(media.number, port);
}

void Receiver::TakeEcho(const uint8_t* data, size_t size)
{
    uint8_t receiver = 0;
    uint32_t serial = 0;
    ++m_world.tally.echoes;
    if (!ReadEcho(data, size, &receiver, &serial))
        Fault("receiver %u got %zu bytes that are no echo", m_nIndex, size);
    else if (receiver != m_nIndex)
        Fault("receiver %u got the echo of receiver %u", m_nIndex, receiver);
    else if (m_openEchoes.erase(serial) == 0)
        Fault("receiver %u got echo %u twice, or had not asked for it", m_nIndex, serial);
}

void Receiver::TakeStop()
{
    ++m_world.tally.stopMessages;
    if (--m_nStopsDue < 0)
        Fault("receiver %u got a stop message that is not for it", m_nIndex);
}

void Receiver::TakeFirst(uint64_t number, Port& port)
{
    ++m_world.tally.firstSendings;
    if (m_nGoneAfter != 0 && number > m_nGoneAfter)
        Fault("receiver %u, gone after packet %lu, got %lu", m_nIndex, m_nGoneAfter, number);
    if (!MayFollow(number, port))
        Fault("receiver %u got packet %lu after %lu", m_nIndex, number, std::max(port.last, m_nNewestEver));
    if (port.first == 0)
        port.first = number;
    port.last = number;
    m_nNewestEver = std::max(m_nNewestEver, number);
    OnFirst(number);
}

// The two ports are read one after the other, so each is looked at by itself and against the other's ends.
bool Receiver::MayFollow(uint64_t number, const Port& port)
{
    if (&port != &m_current)
        return (port.last == 0 || (m_bLoose ? number > port.last : number == port.last + 1))
            && (m_current.first == 0 || number < m_current.first);
    if (port.last == 0)
        return number > m_nNewestEver && (m_nExpectedFrom == 0 || number <= m_nExpectedFrom);
    return m_bLoose ? number > port.last : number == port.last + 1;
}

void Receiver::TakeResend(uint64_t number)
{
    ++m_world.tally.resends;
    Asked& asked = m_asked[number % NUMBERS];
    if (asked.number != static_cast<uint32_t>(number) || asked.times == 0)
        return Fault("receiver %u got packet %lu again and had not asked for it", m_nIndex, number);
    --asked.times;
    OnResend(number);
}

void Receiver::Ping()
{
    m_current.socket.Send(MakePing(m_nStreamId), m_world.ports.ping);
    m_world.CountPing();
    ++m_world.tally.pings;
}

void Receiver::SendStop()
{
    m_current.socket.Send(MakeStop(m_nStreamId), m_world.ports.ping);
    m_world.CountPing();
}

void Receiver::Ask(const std::vector<uint64_t>& numbers, Window window)
{
    for (const uint64_t number : numbers) {
        Asked& asked = m_asked[number % NUMBERS];
        const auto lower = static_cast<uint32_t>(number);
        asked = { lower, asked.number == lower ? asked.times + 1 : 1 };
    }
    m_current.socket.Send(MakeRequest(m_nStreamId, numbers, window), m_world.ports.request);
    ++m_world.tally.requests;
}

void Receiver::Echo()
{
    m_openEchoes.insert(++m_nLastEcho);
    if (m_openEchoes.size() > MOST_ECHOES_OPEN)
        m_openEchoes.erase(m_openEchoes.begin());
    m_current.socket.Send(MakeEcho(m_nStreamId, m_nIndex, m_nLastEcho), m_world.ports.request);
}

void Receiver::Move()
{
    while (Read()) {}
    m_old = std::move(m_current);
    sockaddr_in address = m_address;
    address.sin_port = 0;
    m_current = { Udp(address), 0, 0 };
}

void Receiver::Come()
{
    while (Read()) {}
    m_old.reset();
    m_current.first = m_current.last = 0;
    m_nExpectedFrom = 0;
    m_nGoneAfter = 0;
    m_nDueThrough = 0;
}

void Receiver::BeginLeave()
{
    DueBefore(m_world.FannedOut());
}

void Receiver::DueBefore(uint64_t number)
{
    m_nDueThrough = HasBegun() && !m_bLoose ? number : 0;
}

void Receiver::HaveGone()
{
    const uint64_t sent = m_world.source.Sent();
    while (Read()) {}
    if (m_nNewestEver < m_nDueThrough)
        Fault("receiver %u left after packet %lu and got only %lu", m_nIndex, m_nDueThrough, m_nNewestEver);
    m_nGoneAfter = sent;
}

std::string Receiver::AddressText() const
{
    char text[INET_ADDRSTRLEN] = "";
    (void)inet_ntop(AF_INET, &m_address.sin_addr, text, sizeof(text));
    return text;
}
