#pragma once

#include <cstdint>
#include <vector>

#include "arqctl/core/receiver_table.h"

namespace arqctl {

// The window of receivers that say nothing of theirs, in ms: what the proxy assumes until the first request.
constexpr uint32_t USUAL_WINDOW_MS = 400;

// How many bytes the proxy sends for one request at most: window x bit rate in 32 bits that wrap, in bytes. RTP headers
// are included. `grossBitRate`: the proxy's -G.
uint32_t RequestBudgetBytes(uint32_t windowMs, int64_t grossBitRate);

// The smallest budget that a live receiver's requests have; with USUAL_WINDOW_MS where none says its window.
uint32_t RequestBudgetBytes(const std::vector<ReporterView>& reporters, int64_t grossBitRate);

} // namespace arqctl
