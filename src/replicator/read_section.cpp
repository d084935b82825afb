#include "replicator/read_section.h"

#include <sched.h>

// Both sides in turn: a reader may have picked a side just before the last writer changed it and entered
// only afterwards, so that one change of side alone could miss it.
void ReadSections::WaitForReaders()
{
    WaitForOneSide();
    WaitForOneSide();
}

void ReadSections::WaitForOneSide()
{
    const unsigned side = m_nSide.load();
    m_nSide.store(1 - side);
    while (m_readers[side].load() != 0)
        (void)sched_yield();
}
