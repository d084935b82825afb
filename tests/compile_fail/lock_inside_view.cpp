// Whoever reads the table takes the lock.
// expect: cannot call function 'Lock' while read_section 'table.m_sections' is held

#include "replicator/stream_table.h"

void RemoveWhatIsThere(StreamTable& table)
{
#ifdef CONTRACT_KEPT
    {
        const StreamTable::View view(table);
    }
#else
    const StreamTable::View view(table);
#endif
    const StreamTable::Lock lock(table);
    table.Remove(0);
}
