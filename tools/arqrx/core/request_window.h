#pragma once

#include <cstdint>

#include "arqrx/core/settings.h"

namespace arqrx {

// The three words of a request that tell the proxy how old a packet may be to be sent again, and from which it
// reckons how many bytes it answers a request with. Chosen once: they are the stream's, not the request's.
struct RequestWindow {
    uint16_t retries;
    uint16_t intervalMs;
    uint16_t extraMs;

    // What the proxy forgets: (retries + 1) x interval + extra.
    int64_t MaximumAgeMs() const { return (int64_t { retries } + 1) * intervalMs + extraMs; }
    // (retries x interval + extra) x bit rate / 8000, the product in 32 bits that wrap, as the proxy reckons it.
    uint32_t BudgetBytes(uint32_t bitRate) const { return BudgetMs() * bitRate / 8000; }
    // What the budget covers.
    uint32_t BudgetMs() const { return uint32_t { retries } * intervalMs + extraMs; }
};

// A window that covers the latency and a round trip as long as can be of use within it. Of those that are hardly
// longer it is the one with the largest budget.
RequestWindow ChooseWindow(const Settings& settings);

// How many numbers one request may have, of packets of so many bytes, header included: what has room, and what the
// budget answers. At least 1.
uint32_t MostNumbers(const Settings& settings, const RequestWindow& window, uint32_t packetBytes);

} // namespace arqrx
