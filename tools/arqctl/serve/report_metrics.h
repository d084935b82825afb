#pragma once

#include <cstdint>
#include <prometheus/metric_family.h>
#include <vector>

#include "arqctl/core/receiver_table.h"

namespace arqctl {

// What receivers report, as Prometheus has it: tx_proxy_report_*, labels channel and name. Of a receiver that is gone only
// tx_proxy_report_up is left, 0; of one that has ended nothing, since nobody misses it.
std::vector<prometheus::MetricFamily> ReportFamilies(const ReceiverTable& table, int64_t nowUs);

} // namespace arqctl
