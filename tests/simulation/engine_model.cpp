#include "simulation/engine_model.h"

#include <algorithm>

namespace simulation {

namespace {

constexpr uint32_t HOLD_OFF_TICKS = 9000; // 100 ms, whatever receivers ask for

} // namespace

void EngineModel::Store(uint16_t seq, int32_t buffer, uint32_t timestampTicks)
{
    m_slots[seq % m_slots.size()] = { buffer, seq, timestampTicks, 0, false };
}

void EngineModel::ClearCounters()
{
    m_stats = { 0, 0, 0, 0, 0, m_stats.arqExtraMs, m_stats.arqRetries, m_stats.arqIntervalMs };
}

// The product has 32 bits, the rest of it is lost.
uint32_t EngineModel::BudgetBytes(uint32_t retries, uint32_t intervalMs, uint32_t extraMs, int32_t bitRate)
{
    const uint64_t product = (uint64_t { intervalMs } * retries + extraMs) * static_cast<uint64_t>(bitRate);
    return static_cast<uint32_t>(product % (uint64_t { 1 } << 32) / 8000);
}

void EngineModel::TakeWindow(const Request& request)
{
    m_stats.arqRetries = request.retries;
    m_stats.arqIntervalMs = request.intervalMs;
    m_stats.arqExtraMs = request.extraMs;
}

void EngineModel::CountRun(uint16_t seq, uint32_t& run)
{
    run = seq == m_usNextExpected ? run + 1 : 0;
    m_stats.longestRun = std::max(m_stats.longestRun, run);
    m_usNextExpected = static_cast<uint16_t>(seq + 1);
}

EngineModel::Verdict EngineModel::Judge(
    uint16_t seq, const std::vector<BufferContent>& buffers, uint32_t nowTicks, uint32_t& leftBytes)
{
    Slot& slot = m_slots[seq % m_slots.size()];
    if (slot.buffer < 0) {
        ++m_stats.notInBuffer;
        return Verdict::NotInBuffer;
    }
    const BufferContent& content = buffers[static_cast<size_t>(slot.buffer)];
    if ((m_bBuildsHeaders ? slot.seq : content.seq) != seq)
        return Verdict::Reused;
    if (slot.isResent && IsBefore(nowTicks, slot.resendNotBeforeTicks))
        return Verdict::HeldOff;
    const uint32_t maxAgeMs = (m_stats.arqRetries + 1) * m_stats.arqIntervalMs + m_stats.arqExtraMs;
    if (!IsBefore(nowTicks - maxAgeMs * 90, slot.timestampTicks)) {
        slot.buffer = -1;
        ++m_stats.expired;
        return Verdict::Expired;
    }
    const auto bytes = static_cast<uint32_t>(content.length + (m_bBuildsHeaders ? 12 : 0));
    if (bytes > leftBytes)
        return Verdict::OverBudget;
    leftBytes -= bytes;
    slot.isResent = true;
    slot.resendNotBeforeTicks = nowTicks + HOLD_OFF_TICKS;
    ++m_stats.retransmitted;
    return Verdict::Resent;
}

} // namespace simulation
