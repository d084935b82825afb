#pragma once

#include <poll.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "arqctl/core/receiver_outcome.h"
#include "arqctl/proxy/exchange.h"

namespace arqctl {

// Adds a receiver to a proxy, or deletes one, without waiting: the list, the command, the list again, each a connection
// of its own. For loops that serve others meanwhile; ChangeReceiver is the same for those that may wait.
//
// Times are microseconds of the monotonic clock. Threads: one thread's own.
class ReceiverChange {
public:
    // `who` has passed IsReceiverWord. `patienceUs` is for each of the three; a name takes as long as the proxy's
    // resolver does.
    ReceiverChange(
        ReceiverAction action, std::string socketPath, std::string who, int64_t nowUs, int64_t patienceUs);

    bool IsOver() const { return m_step == Step::Over; }
    // With IsOver: None means that Result() holds.
    Failure Reason() const { return m_failure; }
    Outcome Result() const { return m_outcome; }
    const std::vector<std::string>& Before() const { return m_before; }
    const std::vector<std::string>& After() const { return m_after; }

    // As those of Exchange.
    int Fd() const { return m_exchange->Fd(); }
    short Events() const { return m_exchange->Events(); }
    int64_t WakeUs() const { return m_exchange->WakeUs(); }
    void Proceed(int64_t nowUs);

private:
    enum class Step { Before, Command, After, Over };

    void Begin(Step step, const std::string& request, int64_t nowUs);
    void Take(int64_t nowUs);
    void End(Failure failure);

    const ReceiverAction m_action;
    const std::string m_path;
    const std::string m_who;
    const int64_t m_patienceUs;
    Step m_step = Step::Before;
    std::unique_ptr<Exchange> m_exchange;
    std::vector<std::string> m_before, m_after;
    Failure m_failure = Failure::None;
    Outcome m_outcome = Outcome::Refused;
};

struct ReceiverChangeResult {
    Failure failure = Failure::None; // otherwise the rest does not count
    Outcome outcome = Outcome::Refused;
    std::vector<std::string> before, after;
};

ReceiverChangeResult ChangeReceiver(
    ReceiverAction action, const std::string& socketPath, const std::string& who, int64_t patienceUs);

} // namespace arqctl
