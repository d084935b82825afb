#include "arqctl/proxy/receiver_change.h"

#include <algorithm>
#include <utility>

#include "arqctl/core/reply.h"
#include "common/clock.h"

namespace arqctl {

namespace {

// The answer to List is empty without receivers, as that of a proxy that ends in the middle; this one never is.
constexpr const char* LIST_REQUEST = "AllStats";

bool TakeList(const std::string& reply, std::vector<std::string>& receivers)
{
    Statistics statistics;
    if (!ParseStatistics(reply, statistics))
        return false;
    receivers = std::move(statistics.receivers);
    return true;
}

std::string RequestOf(ReceiverAction action, const std::string& who)
{
    return (action == ReceiverAction::Add ? "Add " : "Delete ") + who;
}

std::string ReplyOf(ReceiverAction action, const std::string& who)
{
    return (action == ReceiverAction::Add ? "OK: Adding: " : "OK: Deleting: ") + who;
}

void WaitForChange(const ReceiverChange& change)
{
    const int64_t leftUs = std::max<int64_t>(change.WakeUs() - common::NowUs(), 0);
    pollfd waiting { change.Fd(), change.Events(), 0 };
    (void)poll(&waiting, 1, static_cast<int>((leftUs + common::US_PER_MS - 1) / common::US_PER_MS));
}

} // namespace

ReceiverChange::ReceiverChange(
    ReceiverAction action, std::string socketPath, std::string who, int64_t nowUs, int64_t patienceUs)
    : m_action(action),
      m_path(std::move(socketPath)),
      m_who(std::move(who)),
      m_patienceUs(patienceUs)
{
    Begin(Step::Before, LIST_REQUEST, nowUs);
}

void ReceiverChange::Begin(Step step, const std::string& request, int64_t nowUs)
{
    m_step = step;
    m_exchange = std::make_unique<Exchange>(m_path, request, nowUs, m_patienceUs);
}

void ReceiverChange::Proceed(int64_t nowUs)
{
    while (!IsOver()) {
        m_exchange->Proceed(nowUs);
        if (!m_exchange->IsOver())
            return;
        Take(nowUs);
    }
}

// A reply that is no list, or not the command's, is another program's or half of one.
void ReceiverChange::Take(int64_t nowUs)
{
    if (m_exchange->Reason() != Failure::None)
        return End(m_exchange->Reason());
    const std::string& reply = m_exchange->Reply();
    if (m_step == Step::Before) {
        if (!TakeList(reply, m_before))
            return End(Failure::Foreign);
        Begin(Step::Command, RequestOf(m_action, m_who), nowUs);
    } else if (m_step == Step::Command) {
        if (reply != ReplyOf(m_action, m_who))
            return End(Failure::Foreign);
        Begin(Step::After, LIST_REQUEST, nowUs);
    } else {
        if (!TakeList(reply, m_after))
            return End(Failure::Foreign);
        m_outcome = OutcomeOf(m_action, m_who, m_before, m_after);
        End(Failure::None);
    }
}

void ReceiverChange::End(Failure failure)
{
    m_failure = failure;
    m_step = Step::Over;
}

ReceiverChangeResult ChangeReceiver(
    ReceiverAction action, const std::string& socketPath, const std::string& who, int64_t patienceUs)
{
    ReceiverChange change(action, socketPath, who, common::NowUs(), patienceUs);
    for (change.Proceed(common::NowUs()); !change.IsOver(); change.Proceed(common::NowUs()))
        WaitForChange(change);
    return { change.Reason(), change.Result(), change.Before(), change.After() };
}

} // namespace arqctl
