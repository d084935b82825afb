#pragma once

#include <cstdint>
#include <optional>

#include "base/most_together.h"
#include "replicator/batch_progress.h"
#include "replicator/my_arq_send_cb.h"
#include "replicator/stream_table.h"

// How packets that are sent together reach every stream. A batch is told by
//   int32_t Count() const                                 its packets, MOST_TOGETHER at most
//   bool IsPassed(int32_t i) const                        packet i is not withheld
//   PacketBuffer* Record(MyArqSendCB& stream, int32_t i)  what that stream sends for it; asked once, in order
//   void OnSent(const StreamTable::View& view, int32_t i) packet i is through with all streams; in order

// What one stream is to send of a batch from packet `first` on.
struct StreamShare {
    template <typename Batch>
    StreamShare(MyArqSendCB& stream, Batch& batch, int32_t first = 0)
    {
        for (int32_t i = first; i < batch.Count(); ++i) {
            PacketBuffer* record = batch.Record(stream, i);
            if (!batch.IsPassed(i))
                continue;
            packets[count] = record;
            numbers[count++] = i;
        }
    }

    PacketBuffer* packets[MOST_TOGETHER];
    int32_t numbers[MOST_TOGETHER]; // of the packets in the batch
    int32_t count = 0;
};

// Goes through the streams in table order, each gets all packets at once. Where a stream would have to
// wait, it and those behind it get the oldest packet that they lack by plain sends, which do wait,
// before the same is tried with the rest: so a receiver that takes nothing holds up the others no
// longer than if packets came one by one.
template <typename Batch>
class BatchSend {
public:
    // The mark, which may be null, ends where this thread is about to wait.
    BatchSend(const StreamTable::View& view, Batch& batch, BatchMark* mark)
        : m_view(view),
          m_batch(batch),
          m_pMark(mark)
    {
    }

    void Run()
    {
        for (int32_t i = 0; i < m_batch.Count(); ++i) {
            ServeWithoutWaiting(i);
            SendPlainly(i);
            m_batch.OnSent(m_view, i);
        }
    }

private:
    void ServeWithoutWaiting(int32_t oldest)
    {
        for (; m_nServed < m_view.Count(); ++m_nServed, m_share.reset()) {
            MyArqSendCB& stream = m_view.At(m_nServed);
            if (!m_share) {
                m_share.emplace(stream, m_batch, oldest);
                m_nDone = 0;
            }
            m_nDone += stream.SendUnlessWaiting(m_share->packets + m_nDone, m_share->count - m_nDone);
            if (m_nDone < m_share->count)
                return;
        }
    }

    void SendPlainly(int32_t i)
    {
        if (m_share && m_pMark != nullptr)
            m_pMark->End();
        if (m_share && m_share->numbers[m_nDone] == i)
            (void)m_view.At(m_nServed).SendData(m_share->packets[m_nDone++]);
        for (int32_t stream = m_nServed + 1; stream < m_view.Count(); ++stream) {
            PacketBuffer* record = m_batch.Record(m_view.At(stream), i);
            if (m_batch.IsPassed(i))
                (void)m_view.At(stream).SendData(record);
        }
    }

    const StreamTable::View& m_view;
    Batch& m_batch;
    BatchMark* m_pMark;
    int32_t m_nServed = 0; // streams that have everything
    std::optional<StreamShare> m_share; // of the next one, once it had to wait; some of it may be done
    int32_t m_nDone = 0; // of the share; less than the whole
};
