#pragma once

#include <cstdint>

// The times and amounts that bound what one request may send again. Window values are 32-bit words;
// all arithmetic is unsigned and wraps, as receivers and operators have come to know it.

// The timing window that receivers set with their requests.
struct ArqWindow {
    uint32_t retries;
    uint32_t intervalMs;
    uint32_t extraMs;

    bool operator==(const ArqWindow&) const = default;
};

// Ticks before the same packet may be sent again: half an interval.
uint32_t HoldOffTicks(uint32_t intervalMs);

// Age in ticks from which a packet is no longer sent again. Counts one retry more than the delay does.
uint32_t MaxAgeTicks(const ArqWindow& window);

// The time in milliseconds that the byte budget covers.
uint32_t WindowDelayMs(const ArqWindow& window);

// Bytes that one request may send again at `bitRate` bit/s. The product wraps modulo 2^32 before the
// division: 400 ms at 50 Mbit/s give 352,516 bytes.
uint32_t BudgetBytes(const ArqWindow& window, uint32_t bitRate);

// What is left of one request's bytes.
struct ByteBudget {
    uint32_t limitBytes;
    uint32_t spentBytes = 0;

    // Charges the bytes; whether they were still covered. Wraps like the limit.
    bool Spend(int32_t bytes)
    {
        spentBytes += static_cast<uint32_t>(bytes);
        return spentBytes <= limitBytes;
    }
};
