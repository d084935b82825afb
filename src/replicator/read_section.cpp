#include "replicator/read_section.h"

bool ReadSections::IsPeriodOver()
{
    for (; m_nSidesToSee > 0; --m_nSidesToSee) {
        const unsigned closedSide = 1 - m_nOpenSide.load();
        if (m_readers[closedSide].load() != 0)
            return false;
        // Newcomers go to the empty side; the other one runs empty from here on.
        m_nOpenSide.store(closedSide);
    }
    return true;
}
