#include "replicator/batch_progress.h"

#include "base/byte_order.h"
#include "pacing/ms_clock.h"

// A batch takes less than a millisecond where nobody disturbs it.
void BatchProgress::WaitForBegun() const
{
    const uint32_t begun = m_nBegun.load();
    for (uint32_t waitedMs = 0; TicksSince(m_nEnded.load(), begun) < 0 && waitedMs < LONGEST_WAIT_MS;
         ++waitedMs)
        (void)SleepMs(1);
}
