#pragma once

#include <cstdint>

#include "arqctl/serve/board.h"
#include "arqctl/serve/channel_json.h"
#include "arqctl/serve/metric_list.h"

namespace arqctl {

// The channels' metrics, tx_proxy_*: described in docs/arqctl.md. What is not known has no value.
void AddChannelMetrics(const Board& board, const Moment& now, MetricList& list);

// This program's own, arqctl_*.
void AddOwnMetrics(size_t eventClients, MetricList& list);

// What one request may have sent again at most, by -G and the window that the receiver sends with it: the product wraps at
// 2^32 in the proxy.
uint32_t RequestBudgetBytes(int64_t grossBitRate, uint32_t windowMs);
constexpr uint32_t USUAL_WINDOW_MS = 400; // until a receiver sends another one

} // namespace arqctl
