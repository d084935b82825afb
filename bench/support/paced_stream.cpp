#include "paced_stream.h"

#include <sys/socket.h>

#include <ctime>

#include "child.h"
#include "figures.h"

void SleepUntil(int64_t wallNs)
{
    constexpr int64_t NS_PER_S = 1000000000;
    const timespec until { static_cast<time_t>(wallNs / NS_PER_S), static_cast<long>(wallNs % NS_PER_S) };
    while (clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &until, nullptr) != 0)
        StopIfAsked();
    StopIfAsked();
}

namespace {

bool s_feedAsleep = false; // main sets it before any feed runs

} // namespace

void FeedAsleep(bool asleep)
{
    s_feedAsleep = asleep;
}

void WaitUntilDue(int64_t wallNs)
{
    if (s_feedAsleep)
        SleepUntil(wallNs);
    while (WallNs() < wallNs)
        StopIfAsked();
}

void TurnResult::Append(const TurnResult& piece)
{
    sent += piece.sent;
    delivered += piece.delivered;
    resent += piece.resent;
    const auto append = [](std::vector<double>& to, const std::vector<double>& from) {
        to.insert(to.end(), from.begin(), from.end());
    };
    append(firstReceiverUs, piece.firstReceiverUs);
    append(lastReceiverUs, piece.lastReceiverUs);
    append(anyReceiverUs, piece.anyReceiverUs);
}

PacedStream::PacedStream(Receivers& receivers, uint16_t inputPort, int perSecond)
    : m_receivers(receivers),
      m_sender(socket(AF_INET, SOCK_DGRAM, 0)),
      m_input(LoopbackAddress(inputPort)),
      m_nPeriodNs(1000000000 / perSecond)
{
}

TurnResult PacedStream::Run(double seconds)
{
    return RunCount(static_cast<int64_t>(seconds * 1e9 / static_cast<double>(m_nPeriodNs)));
}

TurnResult PacedStream::RunCount(int64_t count)
{
    constexpr int64_t COLLECT_EVERY = 16; // a receiver's socket holds some 90
    constexpr int64_t LATEST_NS = 1000000000;
    constexpr int64_t POLL_NS = 5000000;
    ++m_nTurn;
    TurnResult result;
    int64_t due = WallNs() + m_nPeriodNs;
    while (result.sent < count) {
        WaitUntilDue(due);
        SendOne();
        if (++result.sent % COLLECT_EVERY == 0) {
            WaitUntilDue(due + m_nPeriodNs / 2);
            Collect(result);
        }
        due += m_nPeriodNs;
    }
    const int64_t end = WallNs() + LATEST_NS;
    do {
        SleepUntil(WallNs() + POLL_NS);
        Collect(result);
    } while (result.delivered < count * m_receivers.Count() && WallNs() < end);
    return result;
}

void PacedStream::SendOne()
{
    FillHeader(m_datagram, m_usSeq++, m_nTurn);
    m_datagram.SetSentNs(WallNs());
    (void)sendto(m_sender.Get(), &m_datagram, sizeof(m_datagram), 0,
        reinterpret_cast<const sockaddr*>(&m_input), sizeof(m_input));
}

void PacedStream::Collect(TurnResult& result)
{
    constexpr double NS_PER_US = 1000;
    (void)m_receivers.Drain([&](const Arrival& arrival) {
        const MediaHeader& header = arrival.datagram.header;
        if (header.payloadType.Get() == RETRANSMIT_PAYLOAD_TYPE) {
            ++result.resent;
            return;
        }
        if (arrival.length != sizeof(MediaDatagram) || header.ssrc.Get() != m_nTurn)
            return;
        ++result.delivered;
        const double tookUs = static_cast<double>(arrival.arrivedNs - arrival.datagram.SentNs()) / NS_PER_US;
        result.anyReceiverUs.push_back(tookUs);
        if (arrival.receiver == 0)
            result.firstReceiverUs.push_back(tookUs);
        if (arrival.receiver == m_receivers.Count() - 1)
            result.lastReceiverUs.push_back(tookUs);
    });
}
