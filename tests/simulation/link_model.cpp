#include "simulation/link_model.h"

namespace simulation {

LinkModel::Fate LinkModel::Decide()
{
    Fate fate;
    if (IsLost())
        return fate;
    fate.copies = m_random.Chance(m_faults.doublePermille) ? 2 : 1;
    for (int i = 0; i < fate.copies; ++i)
        fate.delaysUs[i] = DrawDelay();
    return fate;
}

bool LinkModel::IsLost()
{
    if (m_nBurstLeft == 0 && m_random.Chance(m_faults.burstPermille))
        m_nBurstLeft = m_random.Between(1, 2 * m_faults.burstLength - 1);
    if (m_nBurstLeft > 0) {
        --m_nBurstLeft;
        return true;
    }
    return m_random.Chance(m_faults.lossPermille);
}

int64_t LinkModel::DrawDelay()
{
    return m_nDelayUs + (m_faults.jitterUs > 0 ? m_random.Between(0, m_faults.jitterUs) : 0);
}

} // namespace simulation
