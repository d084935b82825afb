#pragma once

#include <atomic>
#include <thread>

#include "arqctl/proxy/impair_switch.h"
#include "arqctl/top/deed.h"
#include "base/unique_fd.h"

namespace arqctl::top {

// Switches deliberate loss, which takes seconds of looking at the proxy's counts: on a thread of its own. The settings stay
// those of the proxy's file.
//
// Threads: the owner's; the thread inside writes the outcome and then makes the descriptor readable.
class ImpairDeed : public Deed {
public:
    ImpairDeed(const Order& order, DeedPlace place);
    // Looks no longer, and waits until a toggle that was made is taken: a few seconds at most.
    ~ImpairDeed() override;
    ImpairDeed(const ImpairDeed&) = delete;
    ImpairDeed& operator=(const ImpairDeed&) = delete;

    int64_t Wait(std::vector<pollfd>& descriptors) const override;
    void Proceed(int64_t nowUs) override;
    bool IsOver() const override { return m_isOver; }
    DeedResult Result() const override;

private:
    void Run();

    const Order m_order;
    const DeedPlace m_place;
    ImpairOutcome m_outcome;
    std::atomic<bool> m_stop { false };
    UniqueFd m_ended; // an eventfd
    bool m_isOver = false;
    std::thread m_thread;
};

} // namespace arqctl::top
