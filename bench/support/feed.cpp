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
      m_nBurst(burst)
{
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
            SleepUntil(due);
        for (int i = 0; i < m_nBurst; ++i)
            SendOne();
    }
    return bursts * m_nBurst;
}

void Feed::SendOne()
{
    FillHeader(m_datagram, m_usSeq++, 0);
    (void)sendto(m_sender.Get(), &m_datagram, sizeof(m_datagram), 0,
        reinterpret_cast<const sockaddr*>(&m_input), sizeof(m_input));
}
