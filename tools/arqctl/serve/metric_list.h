#pragma once

#include <prometheus/metric_family.h>

#include <string>
#include <utility>
#include <vector>

namespace arqctl {

// Collects families of metrics for the text of /metrics. A family without values is left out.
class MetricList {
public:
    using Labels = std::vector<std::pair<std::string, std::string>>;

    // What the next values belong to; `name` of a counter ends with "_total". Base units only.
    void Counter(const std::string& name, const std::string& help);
    void Gauge(const std::string& name, const std::string& help);
    void Add(const Labels& labels, double value);
    void AddFamilies(const std::vector<prometheus::MetricFamily>& families);

    const std::vector<prometheus::MetricFamily>& Families() const { return m_families; }
    // In the text format of Prometheus, version 0.0.4.
    std::string Text() const;

private:
    void Begin(const std::string& name, const std::string& help, prometheus::MetricType type);

    std::vector<prometheus::MetricFamily> m_families;
};

} // namespace arqctl
