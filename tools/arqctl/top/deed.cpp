#include "arqctl/top/deed.h"

#include <utility>

#include "arqctl/core/receiver_outcome.h"
#include "arqctl/proxy/ask.h"
#include "arqctl/proxy/exchange.h"
#include "arqctl/proxy/receiver_change.h"
#include "arqctl/top/impair_deed.h"

namespace arqctl::top {

namespace {

// It may have been done all the same: the answer is what is missing.
DeedResult FailedDeed(const std::string& proxy, Failure failure, const DeedPlace& place)
{
    return { "proxy " + proxy + ": " + ProblemText(failure, place.target.ControlPath()), Tone::Bad };
}

Tone ToneOfOutcome(Outcome outcome)
{
    return outcome == Outcome::Done ? Tone::Good : Tone::Warn;
}

class ReceiverDeed : public Deed {
public:
    ReceiverDeed(const Order& order, DeedPlace place, int64_t nowUs)
        : m_action(order.kind == Order::Kind::Add ? ReceiverAction::Add : ReceiverAction::Delete),
          m_order(order),
          m_place(std::move(place)),
          m_change(m_action, m_place.path, order.who, nowUs, m_place.patienceUs)
    {
    }

    int64_t Wait(std::vector<pollfd>& descriptors) const override
    {
        if (m_change.Fd() >= 0)
            descriptors.push_back({ m_change.Fd(), m_change.Events(), 0 });
        return m_change.WakeUs();
    }
    void Proceed(int64_t nowUs) override { m_change.Proceed(nowUs); }
    bool IsOver() const override { return m_change.IsOver(); }

    DeedResult Result() const override
    {
        if (m_change.Reason() != Failure::None)
            return FailedDeed(m_order.proxy, m_change.Reason(), m_place);
        const Outcome outcome = m_change.Result();
        std::string text = "proxy " + m_order.proxy + ": " + OutcomeText(m_action, m_order.who, outcome);
        if (const std::string advice = OutcomeAdvice(m_action, outcome); !advice.empty())
            text += ": " + advice;
        return { text, ToneOfOutcome(outcome) };
    }

private:
    const ReceiverAction m_action;
    const Order m_order;
    const DeedPlace m_place;
    ReceiverChange m_change;
};

class ResetDeed : public Deed {
public:
    ResetDeed(const Order& order, DeedPlace place, int64_t nowUs)
        : m_order(order),
          m_place(std::move(place)),
          m_exchange(m_place.path, "StatClear", nowUs, m_place.patienceUs)
    {
    }

    int64_t Wait(std::vector<pollfd>& descriptors) const override
    {
        if (m_exchange.Fd() >= 0)
            descriptors.push_back({ m_exchange.Fd(), m_exchange.Events(), 0 });
        return m_exchange.WakeUs();
    }
    void Proceed(int64_t nowUs) override { m_exchange.Proceed(nowUs); }
    bool IsOver() const override { return m_exchange.IsOver(); }

    DeedResult Result() const override
    {
        if (m_exchange.Reason() != Failure::None)
            return FailedDeed(m_order.proxy, m_exchange.Reason(), m_place);
        if (m_exchange.Reply() != "OK: Stat Reset")
            return FailedDeed(m_order.proxy, Failure::Foreign, m_place);
        return { "proxy " + m_order.proxy + ": its statistics were set to 0", Tone::Good };
    }

private:
    const Order m_order;
    const DeedPlace m_place;
    Exchange m_exchange;
};

// For what ends before it begins.
class KnownResult : public Deed {
public:
    explicit KnownResult(DeedResult result) : m_result(std::move(result)) {}

    int64_t Wait(std::vector<pollfd>& /*descriptors*/) const override { return 0; }
    void Proceed(int64_t /*nowUs*/) override {}
    bool IsOver() const override { return true; }
    DeedResult Result() const override { return m_result; }

private:
    const DeedResult m_result;
};

} // namespace

std::unique_ptr<Deed> BeginDeed(const Order& order, const DeedPlace& place, int64_t nowUs)
{
    if (order.kind == Order::Kind::Add || order.kind == Order::Kind::Delete)
        return std::make_unique<ReceiverDeed>(order, place, nowUs);
    if (order.kind == Order::Kind::Reset)
        return std::make_unique<ResetDeed>(order, place, nowUs);
    if (place.instance == 0)
        return std::make_unique<KnownResult>(DeedResult {
            "proxy " + order.proxy + ": nothing was changed: its instance number is not known", Tone::Warn });
    return std::make_unique<ImpairDeed>(order, place);
}

} // namespace arqctl::top
