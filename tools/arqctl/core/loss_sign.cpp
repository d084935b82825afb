#include "arqctl/core/loss_sign.h"

namespace arqctl {

void LossSign::Take(const Totals& totals, int64_t nowUs)
{
    if (m_before && totals.restarts != m_before->restarts) { // it starts without
        m_isOn.reset();
        m_bSet = false;
    } else if (m_before && totals.withheld > m_before->withheld) {
        TakeGrowth(nowUs);
    } else if (!m_bSet && nowUs - m_seenUs >= SEEN_US) {
        m_isOn.reset();
    }
    m_before = totals;
}

void LossSign::TakeGrowth(int64_t nowUs)
{
    if (m_bSet && nowUs - m_setUs < SETTLING_US)
        return;
    m_bSet = m_bSet && m_isOn == true;
    m_isOn = true;
    m_seenUs = nowUs;
}

void LossSign::Set(bool isOn, int64_t nowUs)
{
    m_isOn = isOn;
    m_bSet = true;
    m_setUs = nowUs;
}

} // namespace arqctl
