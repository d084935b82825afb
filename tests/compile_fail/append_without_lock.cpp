// A stream joins the table without the lock.
// expect: calling function 'Append' requires holding mutex 'table.m_mutex' exclusively
// expect: calling function 'HasPlace' requires holding mutex 'table.m_mutex' exclusively
// expect: calling function 'HasFreeState' requires holding mutex 'table.m_mutex' exclusively

#include <memory>
#include <utility>

#include "replicator/my_arq_send_cb.h"
#include "replicator/stream_table.h"

void AppendIfThereIsRoom(StreamTable& table, std::unique_ptr<MyArqSendCB> stream)
{
#ifdef CONTRACT_KEPT
    const StreamTable::Lock lock(table);
#endif
    if (table.HasPlace() && table.HasFreeState())
        table.Append(std::move(stream));
}
