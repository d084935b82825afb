#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "arqctl/top/key_press.h"
#include "arqctl/top/order.h"
#include "arqctl/top/view.h"

namespace arqctl::top {

// What the keys do: which proxy is selected, what is being typed or asked. A key that changes something leads to an order
// only over a question that says what will happen, and "y" to it. Pure; threads: one thread's own.
class Dialog {
public:
    // `proxies` are those on the screen; an order is there once one has been agreed to.
    std::optional<Order> Press(const KeyPress& key, const std::vector<ShownProxy>& proxies, int64_t nowUs);

    bool WantsEnd() const { return m_bEnd; }
    // The selected one among `proxies`: it stays selected by its name while others come and go.
    size_t SelectedOf(const std::vector<ShownProxy>& proxies) const;

    // What became of an order, or of anything else that has to be said. A question that is open is not covered by it.
    void Say(const std::string& text, Tone tone);

    // While an order is carried out, no other one is begun.
    void SetBusy(bool isBusy) { m_bBusy = isBusy; }

    // Selection, message, keys, mark and help of the screen.
    void Fill(ViewState& state) const;

private:
    enum class Mode : uint8_t { Watch, Help, TypeReceiver, ChooseReceiver, Ask };

    void PressWatching(const KeyPress& key, const std::vector<ShownProxy>& proxies, int64_t nowUs);
    void PressTyping(const KeyPress& key, const std::vector<ShownProxy>& proxies);
    void PressChoosing(const KeyPress& key, const std::vector<ShownProxy>& proxies);
    std::optional<Order> PressAsked(const KeyPress& key);
    void Select(int step, const std::vector<ShownProxy>& proxies);
    void BeginOrder(char letter, const ShownProxy& proxy, int64_t nowUs);
    void Ask(const ShownProxy& proxy);
    void LeaveOff();
    std::string Question() const;

    Mode m_mode = Mode::Watch;
    bool m_bEnd = false;
    bool m_bBusy = false;
    std::string m_selected; // a name
    Order m_order; // being put together
    std::string m_asked; // the question
    std::string m_message;
    Tone m_messageTone = Tone::Plain;
};

} // namespace arqctl::top
