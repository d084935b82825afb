#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "arqctl/top/grid.h"
#include "arqctl/top/shown_proxy.h"

namespace arqctl::top {

// All that the screen shows.
struct ViewState {
    std::vector<ShownProxy> proxies;
    size_t selected = 0; // of the proxies
    int64_t nowUs = 0; // monotonic
    std::string clock; // the time of day, "14:02:31"
    std::string message; // a question, or what became of the last key
    Tone messageTone = Tone::Plain;
    std::string keys; // what the keys do in the middle of a question; "" for the usual ones
    std::string marked; // a receiver of the selected proxy that a question is about
    bool isHelp = false;
    bool isUtf8 = false;
};

// The whole screen, at any size: what finds no room is left out, a question and its keys last. Pure.
Grid DrawView(const ViewState& state, int columns, int rows);

} // namespace arqctl::top
