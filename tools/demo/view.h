#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "arqrx/core/figures.h"
#include "demo/canvas.h"
#include "demo/history.h"
#include "demo/phases.h"
#include "demo/screen.h"

namespace demo {

// What the proxy says about itself on its control socket.
struct ProxyFigures {
    uint64_t received = 0; // packets
    int64_t receivedBits = 0; // a second
    int64_t inputLoss = 0;
    uint64_t sent = 0; // datagrams, resends included
    int64_t sentBits = 0; // a second
};

// All that the view shows. The pointers live as long as the drawing.
struct ViewState {
    int64_t timeUs = 0; // since the source's first packet
    int64_t lengthUs = 0;
    uint64_t sent = 0; // packets
    std::string source; // what is sent, in a few words
    const std::vector<Phase>* phases = nullptr;
    const History* history = nullptr;
    std::array<arqrx::Figures, 2> figures; // by side
    std::array<const Canvas*, 2> pictures {}; // the last ones shown; null: none
    std::optional<ProxyFigures> proxy; // nothing: no control socket, or no answer yet
    std::string proxyNote; // what to say in place of its figures
};

// How a terminal wants it.
struct ViewStyle {
    Colors colors = Colors::None;
    bool isUtf8 = false;
};

// The whole screen; from 80 x 24 on it has everything, below that what fits.
Screen DrawView(const ViewState& state, int columns, int rows, const ViewStyle& style);

} // namespace demo
