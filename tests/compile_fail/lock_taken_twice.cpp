// The lock is not recursive: taking it twice would stop the thread for ever.
// expect: acquiring mutex 'table.m_mutex' that is already held

#include "replicator/stream_table.h"

void LockAndLock(StreamTable& table)
{
    const StreamTable::Lock lock(table);
#ifndef CONTRACT_KEPT
    const StreamTable::Lock again(table);
#endif
    table.Remove(0);
}
