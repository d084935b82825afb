#include "arqctl/serve/channel_metrics.h"

#include <optional>

#include "arqctl/core/request_budget.h"

namespace arqctl {

namespace {

constexpr double BITS_PER_BYTE = 8;

// One value a channel, where it is known.
template <class Value>
void AddEach(const Board& board, MetricList& list, Value value)
{
    for (const auto& channel : board.All()) {
        if (const std::optional<double> known = value(channel->watched))
            list.Add({ { "channel", channel->watched.id } }, *known);
    }
}

// Of the proxy's answers.
template <class Value>
void AddRead(const Board& board, MetricList& list, Value value)
{
    AddEach(board, list, [value](const WatchedChannel& watched) -> std::optional<double> {
        if (!watched.reading.hasBeenUp)
            return {};
        return static_cast<double>(value(watched.reading));
    });
}

// Of its process.
template <class Value>
void AddFact(const Board& board, MetricList& list, Value value)
{
    AddEach(board, list, [value](const WatchedChannel& watched) -> std::optional<double> {
        if (!watched.facts)
            return {};
        return static_cast<double>(value(*watched.facts));
    });
}

void AddCounts(const Board& board, MetricList& list)
{
    list.Counter("tx_proxy_input_packets_total", "Packets that arrived at the proxy.");
    AddRead(board, list, [](const Reading& reading) { return reading.totals.received; });
    list.Counter("tx_proxy_input_lost_packets_total", "Numbers missing from the input.");
    AddRead(board, list, [](const Reading& reading) { return reading.totals.lost; });
    list.Counter(
        "tx_proxy_output_packets_total", "Datagrams sent to receivers, resends and answered pings included.");
    AddRead(board, list, [](const Reading& reading) { return reading.totals.sent; });
    list.Counter("tx_proxy_sent_beyond_packets_total",
        "Datagrams beyond one an input packet and receiver: resends and answered pings, estimated.");
    AddRead(board, list, [](const Reading& reading) { return reading.totals.sentBeyond; });
    list.Counter("tx_proxy_withheld_packets_total", "Datagrams withheld on purpose, estimated.");
    AddRead(board, list, [](const Reading& reading) { return reading.totals.withheld; });
    list.Counter("tx_proxy_restarts_total", "Restarts of the proxy seen by arqctl.");
    AddRead(board, list, [](const Reading& reading) { return reading.totals.restarts; });
}

// Of its last answer, as long as it answers.
template <class Value>
void AddLive(const Board& board, MetricList& list, Value value)
{
    AddEach(board, list, [value](const WatchedChannel& watched) -> std::optional<double> {
        if (!watched.reading.isUp)
            return {};
        return static_cast<double>(value(watched.reading.statistics));
    });
}

void AddRates(const Board& board, const Moment& now, MetricList& list)
{
    list.Gauge("tx_proxy_input_bytes_per_second", "Input of the last full second, RTP headers included.");
    AddLive(board, list, [](const Statistics& last) { return last.receivedBitRate / BITS_PER_BYTE; });
    list.Gauge("tx_proxy_output_bytes_per_second", "Output of the last full second, RTP headers included.");
    AddLive(board, list, [](const Statistics& last) { return last.sentBitRate / BITS_PER_BYTE; });
    list.Gauge(
        "tx_proxy_input_silent_seconds", "Since the last input packet, or since the proxy was first seen.");
    AddRead(board, list, [&now](const Reading& reading) {
        return static_cast<double>(now.monotonicUs - reading.inputChangedUs) / 1e6;
    });
}

void AddReceivers(const Board& board, MetricList& list)
{
    list.Gauge("tx_proxy_receivers", "Streams in the proxy's list of receivers.");
    AddLive(board, list, [](const Statistics& last) { return last.receivers.size(); });
    list.Gauge(
        "tx_proxy_receiver_up", "1 while the receiver is in the proxy's list, 0 for an hour after it left.");
    for (const auto& channel : board.All()) {
        for (const WatchedReceiver& receiver : channel->receivers.All())
            list.Add({ { "channel", channel->watched.id }, { "receiver", receiver.address } },
                receiver.isReceiving ? 1 : 0);
    }
}

void AddDrops(const Board& board, MetricList& list)
{
    list.Counter(
        "tx_proxy_input_kernel_drops_total", "Input datagrams that found no room in the proxy's socket.");
    AddEach(board, list, [](const WatchedChannel& watched) -> std::optional<double> {
        const UdpSocketFacts* const input = watched.facts ? watched.facts->Input() : nullptr;
        return input ? std::optional(static_cast<double>(input->drops)) : std::nullopt;
    });
}

void AddProcess(const Board& board, MetricList& list)
{
    AddDrops(board, list);
    list.Gauge("tx_proxy_start_time_seconds", "When the proxy started, Unix time.");
    AddFact(board, list, [](const ProcessFacts& facts) { return facts.startTime; });
    list.Counter("tx_proxy_cpu_seconds_total", "Processor time of the proxy.");
    AddFact(board, list, [](const ProcessFacts& facts) { return facts.processorSeconds; });
    list.Gauge("tx_proxy_resident_memory_bytes", "Resident memory of the proxy.");
    AddFact(board, list, [](const ProcessFacts& facts) { return facts.residentBytes; });
    list.Gauge("tx_proxy_ring_packets", "Packets that the proxy remembers for retransmission.");
    AddFact(board, list, [](const ProcessFacts& facts) { return facts.options.ringPackets; });
}

void AddBudget(const Board& board, const Moment& now, MetricList& list)
{
    list.Gauge("tx_proxy_request_budget_bytes",
        "What one request may have sent again at most, by the shortest window.");
    for (const auto& channel : board.All()) {
        const WatchedChannel& watched = channel->watched;
        const auto reporters = board.Reports().Of(watched.id, now.monotonicUs);
        if (watched.facts)
            list.Add({ { "channel", watched.id } },
                RequestBudgetBytes(reporters, watched.facts->options.grossBitRate));
    }
}

void AddControl(const Board& board, MetricList& list)
{
    list.Counter("tx_proxy_control_failures_total", "Questions to the proxy that were not answered.");
    AddEach(board, list,
        [](const WatchedChannel& watched) { return std::optional(static_cast<double>(watched.failures)); });
    list.Gauge("tx_proxy_control_answer_seconds", "How long the proxy took for its last answer.");
    AddEach(board, list, [](const WatchedChannel& watched) {
        return watched.reading.hasBeenUp ? std::optional(watched.answerSeconds) : std::nullopt;
    });
}

} // namespace

void AddChannelMetrics(const Board& board, const Moment& now, MetricList& list)
{
    list.Gauge("tx_proxy_up", "1 while the proxy answers.");
    AddEach(board, list,
        [](const WatchedChannel& watched) { return std::optional(watched.reading.isUp ? 1.0 : 0.0); });
    AddCounts(board, list);
    AddRates(board, now, list);
    AddReceivers(board, list);
    AddProcess(board, list);
    AddBudget(board, now, list);
    AddControl(board, list);
}

void AddOwnMetrics(size_t eventClients, MetricList& list)
{
    list.Gauge("arqctl_event_clients", "Open event streams.");
    list.Add({}, static_cast<double>(eventClients));
    list.Gauge("arqctl_build_info", "1; the version is its label.");
    list.Add({ { "version", TX_PROXY_VERSION } }, 1);
}

} // namespace arqctl
