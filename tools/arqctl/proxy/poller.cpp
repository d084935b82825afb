#include "arqctl/proxy/poller.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace arqctl {

Poller::Poller(std::vector<std::string> socketPaths, int64_t periodUs, int64_t patienceUs)
    : m_periodUs(periodUs),
      m_patienceUs(patienceUs)
{
    Watch(std::move(socketPaths));
}

void Poller::Watch(std::vector<std::string> socketPaths)
{
    std::vector<Asked> asked;
    for (std::string& path : socketPaths) {
        const auto before = std::find_if(
            m_asked.begin(), m_asked.end(), [&path](const Asked& known) { return known.path == path; });
        if (before == m_asked.end()) {
            asked.push_back({ .path = std::move(path), .nextUs = 0, .exchange = nullptr });
            continue;
        }
        asked.push_back(std::move(*before));
        m_asked.erase(before); // a path that is named twice is asked twice
    }
    m_asked = std::move(asked);
}

int64_t Poller::Wait(std::vector<pollfd>& descriptors) const
{
    int64_t wakeUs = std::numeric_limits<int64_t>::max();
    for (const Asked& asked : m_asked) {
        wakeUs = std::min(wakeUs, asked.exchange ? asked.exchange->WakeUs() : asked.nextUs);
        if (asked.exchange && asked.exchange->Fd() >= 0)
            descriptors.push_back({ asked.exchange->Fd(), asked.exchange->Events(), 0 });
    }
    return wakeUs;
}

std::vector<PolledAnswer> Poller::Proceed(int64_t nowUs)
{
    std::vector<PolledAnswer> ended;
    for (size_t i = 0; i < m_asked.size(); ++i) {
        Asked& asked = m_asked[i];
        if (!asked.exchange && nowUs >= asked.nextUs) {
            asked.exchange = std::make_unique<Exchange>(asked.path, "AllStats", nowUs, m_patienceUs);
            asked.nextUs = nowUs + m_periodUs;
        }
        if (!asked.exchange)
            continue;
        asked.exchange->Proceed(nowUs);
        if (!asked.exchange->IsOver())
            continue;
        const Exchange& over = *asked.exchange;
        const int64_t askedUs = asked.nextUs - m_periodUs;
        ended.push_back({ i, { over.Reason(), over.Reply(), over.PeerPid() }, nowUs, nowUs - askedUs });
        asked.exchange.reset();
    }
    return ended;
}

} // namespace arqctl
