#include "feed.h"

#include <sys/socket.h>

#include <algorithm>

#include "figures.h"
#include "paced_stream.h"
#include "udp.h"

Feed::Feed(uint16_t inputPort, int perSecond, int burst)
    : m_sender(socket(AF_INET, SOCK_DGRAM, 0)),
      m_input(LoopbackAddress(inputPort)),
      m_nPeriodNs(int64_t { 1000000000 } * burst / perSecond),
      m_nBurst(burst),
      m_datagrams(static_cast<size_t>(burst)),
      m_pieces(m_datagrams.size()),
      m_messages(m_datagrams.size())
{
    for (size_t i = 0; i < m_messages.size(); ++i) {
        m_pieces[i] = { &m_datagrams[i], sizeof(MediaDatagram) };
        m_messages[i].msg_hdr = { &m_input, sizeof(m_input), &m_pieces[i], 1, nullptr, 0, 0 };
    }
}

int64_t Feed::Run(double seconds)
{
    constexpr int64_t TOGETHER_NS = 100000;
    const auto bursts = static_cast<int64_t>(seconds * 1e9 / static_cast<double>(m_nPeriodNs));
    const int64_t together = std::max(TOGETHER_NS / m_nPeriodNs, int64_t { 1 });
    int64_t due = WallNs();
    for (int64_t burst = 0; burst < bursts; ++burst) {
        due += m_nPeriodNs;
        if (burst % together == 0)
            WaitUntilDue(due);
        SendBurst();
    }
    return bursts * m_nBurst;
}

void Feed::SendOne()
{
    FillHeader(m_datagrams.front(), m_usSeq++, 0);
    (void)sendto(m_sender.Get(), m_datagrams.data(), sizeof(MediaDatagram), 0,
        reinterpret_cast<const sockaddr*>(&m_input), sizeof(m_input));
}

void Feed::SendBurst()
{
    if (m_nBurst == 1) {
        SendOne();
        return;
    }
    for (MediaDatagram& datagram : m_datagrams)
        FillHeader(datagram, m_usSeq++, 0);
    (void)sendmmsg(m_sender.Get(), m_messages.data(), static_cast<unsigned>(m_nBurst), 0);
}
