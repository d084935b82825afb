#include "rounds.h"

#include <cstdio>

#include "../support/figures.h"

Rounds::Rounds(const Settings& settings, std::vector<pid_t> ours)
    : m_settings(settings),
      m_meter(std::move(ours))
{
}

void Rounds::Repeat(const std::function<void(int)>& measure, const std::function<void()>& keep)
{
    constexpr int TRIES_A_ROUND = 3;
    const auto wanted = static_cast<size_t>(m_settings.rounds);
    const int tries = TRIES_A_ROUND * m_settings.rounds;
    for (int i = 0; m_others.size() < wanted; ++i) {
        m_meter.Begin();
        measure(i);
        const double others = m_meter.Others();
        const bool isBusy = others > m_settings.quietBelow;
        const bool mustCount = static_cast<size_t>(tries - i) <= wanted - m_others.size();
        if (isBusy && !mustCount) {
            ++m_nRejected;
            continue;
        }
        m_nBusy += isBusy ? 1 : 0;
        m_others.push_back(others);
        keep();
    }
}

std::string Rounds::Report() const
{
    char text[160];
    (void)snprintf(text, sizeof(text),
        "  %zu rounds; other programs used %.2f processors (median, at most %.2f); %d busy rounds rejected, %d counted",
        m_others.size(), Median(m_others), Percentile(m_others, 1), m_nRejected, m_nBusy);
    return text;
}
