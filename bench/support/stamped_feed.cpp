#include "stamped_feed.h"

#include <algorithm>

#include "child.h"
#include "figures.h"
#include "paced_stream.h"

namespace {

constexpr size_t AT_ONCE = 64;
constexpr int64_t TURN_NS = 200'000;
constexpr int64_t MOST_LATE_NS = 5'000'000;
constexpr double NS_PER_S = 1e9;
constexpr int64_t NS_PER_THREE_TICKS = 33'333; // 90 kHz

} // namespace

StampedFeed::StampedFeed(const sockaddr_in& destination, double bitsPerSecond, Payload payload)
    : m_sender(socket(AF_INET, SOCK_DGRAM, 0)),
      m_destination(destination),
      m_fPerSecond(bitsPerSecond / (8 * sizeof(MediaDatagram))),
      m_payload(payload),
      m_datagrams(AT_ONCE),
      m_pieces(AT_ONCE),
      m_messages(AT_ONCE)
{
    for (size_t i = 0; i < AT_ONCE; ++i) {
        m_pieces[i] = { &m_datagrams[i], sizeof(MediaDatagram) };
        m_messages[i].msg_hdr = { &m_destination, sizeof(m_destination), &m_pieces[i], 1, nullptr, 0, 0 };
    }
}

int64_t StampedFeed::Run(double seconds, const std::function<void()>& afterTurn)
{
    int64_t begin = WallNs();
    const auto total = static_cast<int64_t>(seconds * m_fPerSecond);
    int64_t sent = 0;
    while (sent < total) {
        StopIfAsked();
        // What the machine kept this thread from sending is not made up for beyond 5 ms: no source comes in such bursts.
        const auto sentUntilNs
            = begin + static_cast<int64_t>(static_cast<double>(sent) / m_fPerSecond * NS_PER_S);
        begin += std::max<int64_t>(0, WallNs() - sentUntilNs - MOST_LATE_NS);
        const double elapsed = static_cast<double>(WallNs() - begin) / NS_PER_S;
        const int64_t due = std::min(total, static_cast<int64_t>(elapsed * m_fPerSecond) + 1);
        SendDue(due - sent);
        sent = due;
        afterTurn();
        SleepUntil(WallNs() + TURN_NS);
    }
    return sent;
}

void StampedFeed::SendDue(int64_t count)
{
    while (count > 0) {
        const auto piece = static_cast<size_t>(std::min<int64_t>(count, AT_ONCE));
        const int64_t now = WallNs();
        for (size_t i = 0; i < piece; ++i)
            Fill(m_datagrams[i], now);
        (void)sendmmsg(m_sender.Get(), m_messages.data(), static_cast<unsigned>(piece), 0);
        count -= static_cast<int64_t>(piece);
    }
}

void StampedFeed::Fill(MediaDatagram& datagram, int64_t nowNs)
{
    constexpr size_t TRANSPORT_BYTES = 188;
    FillHeader(datagram, m_usSeq++, 1);
    datagram.header.timestamp.Set(static_cast<uint32_t>(nowNs / NS_PER_THREE_TICKS * 3));
    if (m_payload == Payload::SentTime) {
        datagram.SetSentNs(nowNs);
        return;
    }
    auto* const payload = reinterpret_cast<uint8_t*>(&datagram) + sizeof(MediaHeader);
    for (size_t at = 0; at < sizeof(MediaDatagram) - sizeof(MediaHeader); at += TRANSPORT_BYTES) {
        payload[at] = 0x47; // sync byte, PID 256, payload only, counter
        payload[at + 1] = 0x01;
        payload[at + 2] = 0x00;
        payload[at + 3] = static_cast<uint8_t>(0x10 | (m_nContinuity++ & 0x0F));
    }
}
