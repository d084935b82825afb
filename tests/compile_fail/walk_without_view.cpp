// The table itself offers no way to a stream: only a view does.
// expect: no member named 'ForEach' in 'StreamTable'
// expect: no member named 'Find' in 'StreamTable'
// expect: no member named 'Count' in 'StreamTable'
// expect: no member named 'At' in 'StreamTable'

#include "replicator/stream_table.h"

const MyArqSendCB* Walk(const StreamTable& table)
{
#ifdef CONTRACT_KEPT
    const StreamTable::View reader(table);
#else
    const StreamTable& reader = table;
#endif
    reader.ForEach([](const MyArqSendCB&) {});
    return reader.Count() > 0 ? &reader.At(0) : reader.Find(0, 0);
}
