#include "stayer.h"

namespace {

constexpr Window WIDE = { 2, 20000, 0 }; // nothing grows too old to be sent again on a slow machine
constexpr uint32_t LOSES_ONE_IN = 100;
constexpr uint32_t LOSES_RESEND_ONE_IN = 20;
constexpr size_t MOST_ASKED = 60;
constexpr double PING_SECONDS = 0.5;
constexpr double ASK_SECONDS = 0.02;
constexpr double ASK_AGAIN_SECONDS = 0.15; // the proxy sends nothing again within 0.1 s

} // namespace

Stayer::Stayer(World& world, uint8_t index, const sockaddr_in& address, uint32_t streamId)
    : Receiver(world, index, address, streamId)
{
    ExpectFrom(Source::FIRST_NUMBER);
}

void Stayer::Step(double now)
{
    if (now >= m_nextPing) {
        Ping();
        m_nextPing = now + PING_SECONDS;
    }
    if (now >= m_nextAsk && !m_missing.empty()) {
        AskForMissing(now);
        m_nextAsk = now + ASK_SECONDS;
    }
}

void Stayer::OnFirst(uint64_t number)
{
    m_nNewest = number;
    if (!m_world.OneIn(LOSES_ONE_IN))
        return;
    m_missing[number] = 0;
    ++m_world.tally.lostOnPurpose;
}

void Stayer::OnResend(uint64_t number)
{
    if (!m_world.OneIn(LOSES_RESEND_ONE_IN))
        m_nRecovered += m_missing.erase(number);
}

void Stayer::AskForMissing(double now)
{
    std::vector<uint64_t> numbers;
    for (auto& [number, next] : m_missing) {
        if (now < next || numbers.size() == MOST_ASKED)
            continue;
        numbers.push_back(number);
        next = now + ASK_AGAIN_SECONDS;
    }
    if (!numbers.empty())
        Ask(numbers, WIDE);
}
