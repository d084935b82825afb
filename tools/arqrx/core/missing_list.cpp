#include "arqrx/core/missing_list.h"

namespace arqrx {

Gap& MissingList::Add(uint64_t index, int64_t noticedUs, int64_t dueUs)
{
    Gap& gap = m_gaps.Place(index);
    gap = Gap {};
    gap.index = index;
    gap.noticedUs = noticedUs;
    gap.dueUs = dueUs;
    m_gaps.Mark(index);
    Move(gap, Gap::Turn::First);
    return gap;
}

void MissingList::Remove(Gap& gap)
{
    Move(gap, Gap::Turn::Never);
    m_gaps.Unmark(gap.index);
    gap.index = 0;
}

void MissingList::Move(Gap& gap, Gap::Turn turn)
{
    Unlink(gap);
    gap.turn = turn;
    if (turn == Gap::Turn::Now)
        ++m_nDue;
    Queue* queue = QueueOf(turn);
    if (queue == nullptr)
        return;
    gap.before = queue->last;
    if (queue->last != 0)
        m_gaps.Place(queue->last).after = gap.index;
    else
        queue->first = gap.index;
    queue->last = gap.index;
}

Gap* MissingList::FirstOf(Gap::Turn turn)
{
    const Queue* queue = QueueOf(turn);
    return queue == nullptr || queue->first == 0 ? nullptr : &m_gaps.Place(queue->first);
}

MissingList::Queue* MissingList::QueueOf(Gap::Turn turn)
{
    switch (turn) {
    case Gap::Turn::First:
        return &m_first;
    case Gap::Turn::Again:
        return &m_again;
    case Gap::Turn::Soon:
        return &m_soon;
    case Gap::Turn::Never:
    case Gap::Turn::Now:
        break;
    }
    return nullptr;
}

void MissingList::Unlink(Gap& gap)
{
    if (gap.turn == Gap::Turn::Now)
        --m_nDue;
    Queue* queue = QueueOf(gap.turn);
    if (queue == nullptr)
        return;
    if (gap.before != 0)
        m_gaps.Place(gap.before).after = gap.after;
    else
        queue->first = gap.after;
    if (gap.after != 0)
        m_gaps.Place(gap.after).before = gap.before;
    else
        queue->last = gap.before;
    gap.before = 0;
    gap.after = 0;
}

} // namespace arqrx
