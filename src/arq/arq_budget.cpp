#include "arq/arq_budget.h"

#include "arq/media_clock.h"

uint32_t HoldOffTicks(uint32_t intervalMs)
{
    return intervalMs * (TICKS_PER_MS / 2);
}

uint32_t MaxAgeTicks(const ArqWindow& window)
{
    return ((window.retries + 1) * window.intervalMs + window.extraMs) * TICKS_PER_MS;
}

uint32_t WindowDelayMs(const ArqWindow& window)
{
    return window.intervalMs * window.retries + window.extraMs;
}

uint32_t BudgetBytes(const ArqWindow& window, uint32_t bitRate)
{
    constexpr uint32_t MS_TIMES_BITS_PER_BYTE = 8000;
    return WindowDelayMs(window) * bitRate / MS_TIMES_BITS_PER_BYTE;
}
