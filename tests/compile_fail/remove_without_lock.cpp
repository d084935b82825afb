// A stream is taken out of the table without the lock.
// expect: calling function 'Remove' requires holding mutex 'table.m_mutex' exclusively

#include "replicator/stream_table.h"

void RemoveFirst(StreamTable& table)
{
#ifdef CONTRACT_KEPT
    const StreamTable::Lock lock(table);
#endif
    table.Remove(0);
}
