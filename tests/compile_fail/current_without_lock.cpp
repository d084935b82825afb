// The entries are looked at as a writer does, without the lock.
// expect: calling function 'Current' requires holding mutex 'table.m_mutex' exclusively

#include "replicator/stream_table.h"

int32_t CountNow(StreamTable& table)
{
#ifdef CONTRACT_KEPT
    const StreamTable::Lock lock(table);
#endif
    return table.Current().Count();
}
