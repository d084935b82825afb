#pragma once

#include <poll.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "arqctl/proxy/target.h"
#include "arqctl/top/grid.h"
#include "arqctl/top/order.h"

namespace arqctl::top {

// What became of an order, as one line.
struct DeedResult {
    std::string text; // "proxy 1: 10.0.0.1 was added"
    Tone tone = Tone::Plain; // Good: done; Warn: was so before, or refused; Bad: no answer
};

// Carries out one order, beside everything else that a loop does: it never waits.
// Times are microseconds of the monotonic clock. Threads: one thread's own.
class Deed {
public:
    virtual ~Deed() = default;
    // Adds what to wait for, and returns when Proceed is to be called at the latest.
    virtual int64_t Wait(std::vector<pollfd>& descriptors) const = 0;
    virtual void Proceed(int64_t nowUs) = 0;
    virtual bool IsOver() const = 0;
    virtual DeedResult Result() const = 0; // with IsOver
};

// To whom an order goes.
struct DeedPlace {
    Target target;
    std::string path; // of the control socket on this machine
    int instance = 0; // 0: not known
    int64_t patienceUs = 0;
};

std::unique_ptr<Deed> BeginDeed(const Order& order, const DeedPlace& place, int64_t nowUs);

} // namespace arqctl::top
