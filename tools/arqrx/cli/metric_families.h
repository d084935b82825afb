#pragma once

#include <prometheus/metric_family.h>

#include <string>
#include <vector>

#include "arqrx/program/sample.h"

namespace arqrx {

// Everything in a sample as metrics; what is not known is left out.
std::vector<prometheus::MetricFamily> MetricFamilies(const Sample& sample, const std::string& stream);

} // namespace arqrx
