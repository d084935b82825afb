#include "arqctl/top/dialog.h"

#include <fmt/format.h>

#include <algorithm>

#include "arqctl/core/receiver_outcome.h"

namespace arqctl::top {

namespace {

using Kind = KeyPress::Kind;

// The next one of a list in a circle; the first when `present` is not in it any more.
std::string Neighbour(const std::vector<std::string>& list, const std::string& present, int step)
{
    const auto found = std::find(list.begin(), list.end(), present);
    if (found == list.end())
        return list.front();
    const auto count = static_cast<int>(list.size());
    const int at = static_cast<int>(found - list.begin());
    return list[static_cast<size_t>((at + step + count) % count)];
}

int StepOf(const KeyPress& key)
{
    if (key.kind == Kind::Up || (key.kind == Kind::Letter && key.letter == 'k'))
        return -1;
    return key.kind == Kind::Down || (key.kind == Kind::Letter && key.letter == 'j') ? 1 : 0;
}

const ShownProxy* FindProxy(const std::vector<ShownProxy>& proxies, const std::string& name)
{
    const auto found = std::find_if(
        proxies.begin(), proxies.end(), [&name](const ShownProxy& proxy) { return proxy.name == name; });
    return found == proxies.end() ? nullptr : &*found;
}

} // namespace

std::optional<Order> Dialog::Press(const KeyPress& key, const std::vector<ShownProxy>& proxies, int64_t nowUs)
{
    switch (m_mode) {
    case Mode::Watch:
        PressWatching(key, proxies, nowUs);
        break;
    case Mode::Help:
        m_bEnd = key.kind == Kind::Letter && key.letter == 'q';
        m_mode = Mode::Watch;
        break;
    case Mode::TypeReceiver:
        PressTyping(key, proxies);
        break;
    case Mode::ChooseReceiver:
        PressChoosing(key, proxies);
        break;
    case Mode::Ask:
        return PressAsked(key);
    }
    return std::nullopt;
}

size_t Dialog::SelectedOf(const std::vector<ShownProxy>& proxies) const
{
    const ShownProxy* const found = FindProxy(proxies, m_selected);
    return found == nullptr ? 0 : static_cast<size_t>(found - proxies.data());
}

void Dialog::Say(const std::string& text, Tone tone)
{
    m_message = text;
    m_messageTone = tone;
}

void Dialog::PressWatching(const KeyPress& key, const std::vector<ShownProxy>& proxies, int64_t nowUs)
{
    if (const int step = StepOf(key); step != 0)
        return Select(step, proxies);
    if (key.kind != Kind::Letter)
        return;
    if (!m_bBusy)
        m_message.clear();
    if (key.letter == 'q')
        m_bEnd = true;
    else if (key.letter == '?' || key.letter == 'h')
        m_mode = Mode::Help;
    else if (std::string_view("adir").find(key.letter) == std::string_view::npos)
        Say("no such key: press ? for those there are", Tone::Plain);
    else if (m_bBusy)
        Say("wait: the last change is still under way", Tone::Warn);
    else if (proxies.empty())
        Say("there is no proxy to change", Tone::Warn);
    else
        BeginOrder(key.letter, proxies[SelectedOf(proxies)], nowUs);
}

void Dialog::Select(int step, const std::vector<ShownProxy>& proxies)
{
    if (proxies.empty())
        return;
    const auto last = static_cast<int>(proxies.size()) - 1;
    const int at = std::clamp(static_cast<int>(SelectedOf(proxies)) + step, 0, last);
    m_selected = proxies[static_cast<size_t>(at)].name;
}

void Dialog::BeginOrder(char letter, const ShownProxy& proxy, int64_t nowUs)
{
    const std::vector<std::string>& receivers = proxy.reading.statistics.receivers;
    m_selected = proxy.name;
    m_order = { Order::Kind::Reset, proxy.name, "" };
    if (!proxy.reading.isUp)
        return Say(fmt::format("proxy {} does not answer: nothing was changed", proxy.name), Tone::Warn);
    if (letter == 'd' && receivers.empty())
        return Say(fmt::format("proxy {} has no receiver: nothing was changed", proxy.name), Tone::Warn);
    switch (letter) {
    case 'a':
        m_order.kind = Order::Kind::Add;
        m_mode = Mode::TypeReceiver;
        break;
    case 'd':
        m_order.kind = Order::Kind::Delete;
        m_order.who = receivers.front();
        m_mode = Mode::ChooseReceiver;
        break;
    case 'i':
        m_order.kind = IsWithholding(proxy, nowUs) ? Order::Kind::ImpairOff : Order::Kind::ImpairOn;
        Ask(proxy);
        break;
    default:
        Ask(proxy);
    }
}

void Dialog::PressTyping(const KeyPress& key, const std::vector<ShownProxy>& proxies)
{
    m_message.clear();
    if (key.kind == Kind::Escape)
        return LeaveOff();
    if (key.kind == Kind::Backspace && !m_order.who.empty())
        m_order.who.pop_back();
    // A colon stands there to be seen: without it the port behind it would become part of the address.
    const bool isWord = m_order.who.empty() || IsReceiverWord(m_order.who);
    if (key.kind == Kind::Letter && isWord
        && (IsReceiverWord(m_order.who + key.letter) || (key.letter == ':' && !m_order.who.empty())))
        m_order.who += key.letter;
    if (key.kind != Kind::Enter || !isWord)
        return;
    const ShownProxy* const proxy = FindProxy(proxies, m_order.proxy);
    if (m_order.who.empty() || proxy == nullptr)
        return LeaveOff();
    Ask(*proxy);
}

void Dialog::PressChoosing(const KeyPress& key, const std::vector<ShownProxy>& proxies)
{
    const ShownProxy* const proxy = FindProxy(proxies, m_order.proxy);
    if (key.kind == Kind::Escape || (key.kind == Kind::Letter && (key.letter == 'q' || key.letter == 'n')))
        return LeaveOff();
    if (proxy == nullptr || proxy->reading.statistics.receivers.empty())
        return LeaveOff();
    if (const int step = StepOf(key); step != 0)
        m_order.who = Neighbour(proxy->reading.statistics.receivers, m_order.who, step);
    if (key.kind == Kind::Enter)
        Ask(*proxy);
}

void Dialog::Ask(const ShownProxy& proxy)
{
    m_asked = QuestionText(m_order, proxy.mediaPort);
    m_mode = Mode::Ask;
}

// Any other key neither does it nor takes the question away.
std::optional<Order> Dialog::PressAsked(const KeyPress& key)
{
    if (key.kind == Kind::Letter && (key.letter == 'y' || key.letter == 'Y')) {
        m_mode = Mode::Watch;
        Say(UnderWayText(m_order), Tone::Plain);
        return m_order;
    }
    if (key.kind == Kind::Escape
        || (key.kind == Kind::Letter && std::string_view("nNq").find(key.letter) != std::string_view::npos))
        LeaveOff();
    return std::nullopt;
}

void Dialog::LeaveOff()
{
    m_mode = Mode::Watch;
    Say("nothing was changed", Tone::Plain);
}

std::string Dialog::Question() const
{
    switch (m_mode) {
    case Mode::TypeReceiver:
        return fmt::format("Add to proxy {}, address or host name: {}_{}", m_order.proxy, m_order.who,
            m_order.who.empty() || IsReceiverWord(m_order.who) ? "" : "  neither a port nor IPv6 goes");
    case Mode::ChooseReceiver:
        return fmt::format("Delete from proxy {}: {}", m_order.proxy, m_order.who);
    case Mode::Ask:
        return m_asked;
    case Mode::Watch:
    case Mode::Help:
        break;
    }
    return "";
}

void Dialog::Fill(ViewState& state) const
{
    state.selected = SelectedOf(state.proxies);
    state.isHelp = m_mode == Mode::Help;
    const std::string question = Question();
    state.message = question.empty() ? m_message : question;
    state.messageTone = question.empty() ? m_messageTone : Tone::Strong;
    state.marked = m_order.kind == Order::Kind::Delete && !question.empty() ? m_order.who : "";
    state.keys = m_mode == Mode::Ask     ? "y yes  n no"
        : m_mode == Mode::TypeReceiver   ? "Enter go on  Esc leave"
        : m_mode == Mode::ChooseReceiver ? "up/down  Enter go on  Esc leave"
                                         : "";
    if (!state.proxies.empty() && state.proxies[state.selected].name != m_order.proxy)
        state.marked.clear();
}

} // namespace arqctl::top
