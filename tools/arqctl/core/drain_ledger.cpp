#include "arqctl/core/drain_ledger.h"

#include <algorithm>

namespace arqctl {

void DrainLedger::Take(const std::vector<std::string>& list)
{
    m_now = std::set<std::string>(list.begin(), list.end());
    for (const std::string& address : m_seen)
        if (!m_now.contains(address))
            m_wereGone.insert(address);
        else if (m_wereGone.contains(address))
            m_haveComeBack.insert(address);
    for (const std::string& address : list)
        if (std::find(m_seen.begin(), m_seen.end(), address) == m_seen.end())
            m_seen.push_back(address);
}

std::vector<DrainLedger::Left> DrainLedger::NotGone() const
{
    std::vector<Left> left;
    for (const std::string& address : m_seen)
        if (m_now.contains(address) || m_haveComeBack.contains(address))
            left.push_back({ address, m_haveComeBack.contains(address) });
    return left;
}

std::vector<std::string> DrainLedger::Gone() const
{
    std::vector<std::string> gone;
    for (const std::string& address : m_seen)
        if (!m_now.contains(address) && !m_haveComeBack.contains(address))
            gone.push_back(address);
    return gone;
}

} // namespace arqctl
