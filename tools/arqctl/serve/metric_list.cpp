#include "arqctl/serve/metric_list.h"

#include <prometheus/text_serializer.h>

namespace arqctl {

void MetricList::Counter(const std::string& name, const std::string& help)
{
    Begin(name, help, prometheus::MetricType::Counter);
}

void MetricList::Gauge(const std::string& name, const std::string& help)
{
    Begin(name, help, prometheus::MetricType::Gauge);
}

void MetricList::Begin(const std::string& name, const std::string& help, prometheus::MetricType type)
{
    if (!m_families.empty() && m_families.back().metric.empty())
        m_families.pop_back();
    m_families.emplace_back();
    m_families.back().name = name;
    m_families.back().help = help;
    m_families.back().type = type;
}

void MetricList::Add(const Labels& labels, double value)
{
    prometheus::ClientMetric metric;
    for (const auto& [name, text] : labels)
        metric.label.push_back({ name, text });
    prometheus::MetricFamily& family = m_families.back();
    if (family.type == prometheus::MetricType::Counter)
        metric.counter.value = value;
    else
        metric.gauge.value = value;
    family.metric.push_back(std::move(metric));
}

void MetricList::AddFamilies(const std::vector<prometheus::MetricFamily>& families)
{
    m_families.insert(m_families.end(), families.begin(), families.end());
}

std::string MetricList::Text() const
{
    std::vector<prometheus::MetricFamily> families = m_families;
    std::erase_if(families, [](const prometheus::MetricFamily& family) { return family.metric.empty(); });
    return prometheus::TextSerializer().Serialize(families);
}

} // namespace arqctl
