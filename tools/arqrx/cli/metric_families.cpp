#include "arqrx/cli/metric_families.h"

#include <utility>

#include "arqrx/program/fields.h"
#include "common/clock.h"

namespace arqrx {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

double InSeconds(int64_t us)
{
    return static_cast<double>(us) / static_cast<double>(common::US_PER_SECOND);
}

// Collects families that all have the label of the stream.
class Page {
public:
    explicit Page(const std::string& stream) : m_stream(stream) {}

    void AddCount(const std::string& name, const std::string& help, uint64_t value)
    {
        Begin("arqrx_" + name + "_total", help, MetricType::Counter);
        Add(static_cast<double>(value));
    }

    void AddGauge(const std::string& name, const std::string& help, double value)
    {
        Begin("arqrx_" + name, help, MetricType::Gauge);
        Add(value);
    }

    void AddTime(const std::string& name, const std::string& help, int64_t us)
    {
        if (us >= 0)
            AddGauge(name + "_seconds", help, InSeconds(us));
    }

    // One value an output, which has a label of its own.
    void AddOutputs(const std::string& name, const std::string& help, MetricType type, const Sample& sample,
        uint64_t (*value)(const OutputFigures&))
    {
        if (sample.outputs.empty())
            return;
        Begin("arqrx_output_" + name, help, type);
        for (const OutputFigures& output : sample.outputs)
            Add(static_cast<double>(value(output)), output.name);
    }

    std::vector<MetricFamily> Take() { return std::move(m_families); }

private:
    void Begin(std::string name, const std::string& help, MetricType type)
    {
        m_families.emplace_back();
        m_families.back().name = std::move(name);
        m_families.back().help = help;
        m_families.back().type = type;
    }

    void Add(double value, const std::string& output = "")
    {
        ClientMetric metric;
        metric.label.push_back({ "stream", m_stream });
        if (!output.empty())
            metric.label.push_back({ "output", output });
        metric.counter.value = value;
        metric.gauge.value = value;
        m_families.back().metric.push_back(std::move(metric));
    }

    const std::string m_stream;
    std::vector<MetricFamily> m_families;
};

} // namespace

std::vector<MetricFamily> MetricFamilies(const Sample& sample, const std::string& stream)
{
    Page page(stream);
    for (const CountField& field : COUNT_FIELDS)
        page.AddCount(field.name, field.help, sample.core.*field.count);
    if (sample.decryption) {
        for (const DecryptionField& field : DECRYPTION_FIELDS)
            page.AddCount(field.name, field.help, (*sample.decryption).*field.count);
    }
    page.AddCount("transport_packets", "MPEG-TS packets played out", sample.transportPackets);
    page.AddCount("continuity_errors", "Jumps of their continuity counters", sample.continuityErrors);
    page.AddCount("socket_drops", "Datagrams that the kernel had no room for", sample.socketDrops);
    page.AddCount("send_failures", "Pings and requests that the system refused", sample.sendFailures);
    page.AddGauge("packets_waiting", "Packets that are missing now and may still come",
        static_cast<double>(sample.core.waiting));
    page.AddGauge(
        "packets_buffered", "Packets that wait for their time", static_cast<double>(sample.core.buffered));
    for (const TimeField& field : TIME_FIELDS)
        page.AddTime(field.name, field.help, sample.core.*field.timeUs);
    page.AddGauge(
        "drift_ratio", "How much faster the proxy's clock runs than ours", sample.core.driftPpm * 1e-6);
    page.AddTime(
        "play_late_p50", "From when a packet was due to when it left, half are faster", sample.playLateP50Us);
    page.AddTime("play_late_p99", "From when a packet was due to when it left, 99 of 100 are faster",
        sample.playLateP99Us);
    page.AddTime("silent", "Since the last media packet came", sample.sinceMediaUs);
    page.AddOutputs("packets_total", "Packets handed on", MetricType::Counter, sample,
        [](const OutputFigures& output) { return output.packets; });
    page.AddOutputs("dropped_total", "Packets for which there was no room", MetricType::Counter, sample,
        [](const OutputFigures& output) { return output.dropped; });
    page.AddOutputs("failed", "1 once nothing goes there any more", MetricType::Gauge, sample,
        [](const OutputFigures& output) { return static_cast<uint64_t>(output.hasFailed); });
    return page.Take();
}

} // namespace arqrx
