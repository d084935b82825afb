#include "arqctl/serve/report_metrics.h"

#include <array>
#include <functional>
#include <string>
#include <utility>

namespace arqctl {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

constexpr double PER_MS = 1e-3; // seconds

// The value of a receiver; below 0 where it is not known.
struct ReportMetric {
    const char* name; // behind "tx_proxy_report_"
    MetricType type;
    double (*value)(const ReceiverReport&);
    const char* help;
};

template <uint64_t ReceiverReport::*COUNT>
double CountOf(const ReceiverReport& report)
{
    return static_cast<double>(report.*COUNT);
}

template <double ReceiverReport::*READING>
double SecondsOf(const ReceiverReport& report)
{
    return report.*READING * PER_MS;
}

double LargestRequestBytes(const ReceiverReport& report)
{
    return report.packetBytes < 0 ? -1 : static_cast<double>(report.mostAsked) * report.packetBytes;
}

constexpr std::array REPORT_METRICS {
    ReportMetric { "received_packets_total", MetricType::Counter, CountOf<&ReceiverReport::received>,
        "Media datagrams that came to a receiver, doubles and late ones included" },
    ReportMetric { "resent_packets_total", MetricType::Counter, CountOf<&ReceiverReport::resent>,
        "Of these, packets that the proxy sent again" },
    ReportMetric { "missing_packets_total", MetricType::Counter, CountOf<&ReceiverReport::missing>,
        "Packets that were missing at a receiver at some time" },
    ReportMetric { "recovered_packets_total", MetricType::Counter, CountOf<&ReceiverReport::recovered>,
        "Of these, packets that came in time" },
    ReportMetric { "lost_packets_total", MetricType::Counter, CountOf<&ReceiverReport::lost>,
        "Of these, packets that did not" },
    ReportMetric { "late_packets_total", MetricType::Counter, CountOf<&ReceiverReport::late>,
        "Packets that came after they were lost" },
    ReportMetric { "duplicate_packets_total", MetricType::Counter, CountOf<&ReceiverReport::duplicate>,
        "Packets that were at a receiver already" },
    ReportMetric { "waiting_packets", MetricType::Gauge, CountOf<&ReceiverReport::waiting>,
        "Packets that are missing at a receiver now and may still come" },
    ReportMetric { "requests_total", MetricType::Counter, CountOf<&ReceiverReport::requests>,
        "Requests that a receiver sent to the proxy" },
    ReportMetric { "asked_packets_total", MetricType::Counter, CountOf<&ReceiverReport::numbersAsked>,
        "Packets named in these, repeats included" },
    ReportMetric { "largest_request_bytes", MetricType::Gauge, LargestRequestBytes,
        "What the largest request of the last second asked for, RTP headers included" },
    ReportMetric { "round_trip_seconds", MetricType::Gauge, SecondsOf<&ReceiverReport::roundTripMs>,
        "Round trip between a receiver and the proxy, smoothed" },
    ReportMetric { "buffer_seconds", MetricType::Gauge, SecondsOf<&ReceiverReport::bufferMs>,
        "From the next packet to play out to the newest" },
    ReportMetric { "latency_seconds", MetricType::Gauge, SecondsOf<&ReceiverReport::latencyMs>,
        "From a packet's arrival to its play-out, as the receiver was told" },
};

struct LabelledReporter {
    std::string channel;
    ReporterView view;
};

std::vector<LabelledReporter> AllReporters(const ReceiverTable& table, int64_t nowUs)
{
    std::vector<LabelledReporter> all;
    for (const std::string& channel : table.Channels()) {
        for (ReporterView& view : table.Of(channel, nowUs))
            all.push_back({ channel, std::move(view) });
    }
    return all;
}

void AddValue(MetricFamily& family, const LabelledReporter& reporter, double value)
{
    ClientMetric metric;
    metric.label = { { "channel", reporter.channel }, { "name", reporter.view.label } };
    (family.type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = value;
    family.metric.push_back(std::move(metric));
}

} // namespace

std::vector<MetricFamily> ReportFamilies(const ReceiverTable& table, int64_t nowUs)
{
    const std::vector<LabelledReporter> reporters = AllReporters(table, nowUs);
    std::vector<MetricFamily> families;
    families.push_back({ "tx_proxy_report_up",
        "Whether a receiver reports: 0 for an hour after it fell silent", MetricType::Gauge, {} });
    for (const LabelledReporter& reporter : reporters) {
        if (reporter.view.state != ReporterState::Ended)
            AddValue(families.back(), reporter, reporter.view.state == ReporterState::Live ? 1 : 0);
    }
    for (const ReportMetric& metric : REPORT_METRICS) {
        families.push_back({ std::string("tx_proxy_report_") + metric.name, metric.help, metric.type, {} });
        for (const LabelledReporter& reporter : reporters) {
            const double value = metric.value(*reporter.view.report);
            if (reporter.view.state == ReporterState::Live && value >= 0)
                AddValue(families.back(), reporter, value);
        }
    }
    std::erase_if(families, [](const MetricFamily& family) { return family.metric.empty(); });
    return families;
}

} // namespace arqctl
