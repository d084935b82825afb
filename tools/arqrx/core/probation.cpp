#include "arqrx/core/probation.h"

#include <algorithm>
#include <cstdlib>

#include "base/byte_order.h"

namespace arqrx {

namespace {

constexpr int MOST_APART = 64; // numbers: some in between may be lost, some overtaken
constexpr int64_t MOST_APART_TICKS = 180'000; // besides what passed between the two arrivals
constexpr int64_t WRONG_WAY_TICKS = 9'000; // a source's packets may change order before the proxy stamps them

} // namespace

void Probation::Hold(const Arrival& arrival)
{
    m_arrival = arrival;
    std::ranges::copy(arrival.datagram, m_bytes.begin());
    m_arrival.datagram = std::span(m_bytes).first(arrival.datagram.size());
    m_bHeld = true;
}

bool Probation::GoesWith(const Arrival& arrival) const
{
    if (!m_bHeld || arrival.words.ssrc != m_arrival.words.ssrc)
        return false;
    const int numbers = SeqDiff(arrival.words.seq, m_arrival.words.seq);
    if (numbers == 0 || std::abs(numbers) > MOST_APART)
        return false;
    const int64_t ticks = TicksSince(arrival.words.timestamp, m_arrival.words.timestamp);
    const int64_t onward = numbers > 0 ? ticks : -ticks;
    const int64_t passedTicks = (arrival.timeUs - m_arrival.timeUs) * 9 / 100;
    return onward >= -WRONG_WAY_TICKS && onward <= passedTicks + MOST_APART_TICKS;
}

} // namespace arqrx
