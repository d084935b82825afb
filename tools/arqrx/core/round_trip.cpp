#include "arqrx/core/round_trip.h"

#include <cstdlib>

namespace arqrx {

void RoundTrip::Add(int64_t sampleUs)
{
    if (!IsKnown()) {
        m_nSmoothedUs = sampleUs;
        m_nVariationUs = sampleUs / 2;
        return;
    }
    m_nVariationUs += (std::abs(m_nSmoothedUs - sampleUs) - m_nVariationUs) / 4;
    m_nSmoothedUs += (sampleUs - m_nSmoothedUs) / 8;
}

uint64_t EchoSchedule::Send(int64_t nowUs)
{
    ++m_nNumber;
    m_sent[m_nNumber % m_sent.size()] = { m_nNumber, nowUs };
    const bool isQuick = !m_bAnswered && m_nNumber < QUICK_ECHOES;
    m_nNextUs = nowUs + (isQuick ? QUICK_US : STEADY_US);
    return m_nNumber;
}

int64_t EchoSchedule::Back(uint64_t number, int64_t nowUs)
{
    Sent& sent = m_sent[number % m_sent.size()];
    if (number == 0 || sent.number != number)
        return -1;
    sent.number = 0;
    m_bAnswered = true;
    return nowUs - sent.timeUs;
}

} // namespace arqrx
