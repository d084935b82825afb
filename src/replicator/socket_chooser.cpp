#include "replicator/socket_chooser.h"

#include <algorithm>

void SocketChooser::UseInterfaces(int32_t count, uint32_t percent)
{
    constexpr uint32_t ALL = 100;
    constexpr int32_t EVEN = 50;
    m_nCount = count;
    m_nCurrent = 0;
    const bool isEven = percent > ALL;
    m_nWeight0 = isEven ? EVEN : static_cast<int32_t>(percent);
    m_nWeight1 = isEven ? EVEN : static_cast<int32_t>(ALL - percent);
    m_nCredit0 = m_nWeight0;
    m_nCredit1 = m_nWeight1;
    m_nStep = std::min(m_nWeight0.Load(), m_nWeight1.Load());
    m_bSplit = count > 1;
}

void SocketChooser::Advance()
{
    if (m_bSplit)
        m_nCurrent = NextByCredit();
    else
        m_nCurrent = (m_nCurrent + 1) % m_nCount;
}

int32_t SocketChooser::NextByCredit()
{
    if (m_nWeight0 == 0)
        return 1;
    if (m_nWeight1 == 0)
        return 0;
    const int32_t next = m_nCredit0 <= m_nCredit1 ? 1 : 0;
    PlainWord<int32_t>& credit = next == 1 ? m_nCredit1 : m_nCredit0;
    credit.Add(-m_nStep);
    if (m_nCredit0 <= 0 && m_nCredit1 <= 0) {
        m_nCredit0.Add(m_nWeight0);
        m_nCredit1.Add(m_nWeight1);
    }
    return next;
}
