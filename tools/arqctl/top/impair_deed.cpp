#include "arqctl/top/impair_deed.h"

#include <sys/eventfd.h>

#include <limits>
#include <utility>

namespace arqctl::top {

namespace {

Tone ToneOfSwitch(ImpairResult result)
{
    switch (result) {
    case ImpairResult::Done:
        return Tone::Good;
    case ImpairResult::AlreadySo:
    case ImpairResult::Refused:
    case ImpairResult::Unconfirmed:
        return Tone::Warn;
    case ImpairResult::NotDone:
    case ImpairResult::NoAnswer:
    case ImpairResult::Failed:
        return Tone::Bad;
    }
    return Tone::Plain;
}

} // namespace

ImpairDeed::ImpairDeed(const Order& order, DeedPlace place)
    : m_order(order),
      m_place(std::move(place)),
      m_ended(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (m_ended.IsValid())
        m_thread = std::thread([this] { Run(); });
    else
        m_isOver = true; // the outcome is Failed
}

ImpairDeed::~ImpairDeed()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
}

void ImpairDeed::Run()
{
    LossLook look;
    look.socketPath = m_place.path;
    look.isRemote = m_place.target.IsRemote();
    look.answerPatienceUs = m_place.patienceUs;
    look.stop = &m_stop;
    ImpairOrder order;
    order.isOn = m_order.kind == Order::Kind::ImpairOn;
    const std::unique_ptr<ImpairFiles> files = MakeImpairFiles(m_place.target, m_place.instance);
    m_outcome = SwitchLoss(*files, look, order);
    (void)eventfd_write(m_ended.Get(), 1);
}

int64_t ImpairDeed::Wait(std::vector<pollfd>& descriptors) const
{
    descriptors.push_back({ m_ended.Get(), POLLIN, 0 });
    return std::numeric_limits<int64_t>::max();
}

void ImpairDeed::Proceed(int64_t /*nowUs*/)
{
    eventfd_t count = 0;
    if (m_isOver || eventfd_read(m_ended.Get(), &count) != 0)
        return;
    m_thread.join();
    m_isOver = true;
}

DeedResult ImpairDeed::Result() const
{
    std::string text = "proxy " + m_order.proxy + ", deliberate loss: " + m_outcome.text;
    if (!m_outcome.advice.empty()) // it speaks of the command's options
        text += " (arqctl impair: " + m_outcome.advice + ")";
    return { text, ToneOfSwitch(m_outcome.result) };
}

} // namespace arqctl::top
