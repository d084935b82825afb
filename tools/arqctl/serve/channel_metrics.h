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

} // namespace arqctl
