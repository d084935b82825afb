#include "arqctl/serve/channel_json.h"

#include <cmath>
#include <ctime>

#include "arqctl/serve/receiver_report.h"
#include "common/clock.h"

namespace arqctl {

namespace {

using Json = nlohmann::ordered_json;

// Milliseconds and thousandths are as much as anyone reads.
double Rounded(double value)
{
    constexpr double PARTS = 1000;
    return std::round(value * PARTS) / PARTS;
}

// What a proxy counted is known once it has answered, how fast it counts only while it does.
void AddCount(Json& object, const std::string& rateName, const char* name, const Reading& reading,
    uint64_t total, double rate)
{
    if (reading.hasBeenUp)
        object[name] = total;
    if (reading.isUp)
        object[rateName + "_rate"] = Rounded(rate);
}

Json InputObject(const WatchedChannel& watched, const Moment& now)
{
    const Reading& reading = watched.reading;
    Json object = Json::object();
    if (reading.isUp)
        object["bit_rate"] = reading.statistics.receivedBitRate;
    AddCount(object, "packet", "packets", reading, reading.totals.received, reading.rates.inputPackets);
    AddCount(object, "loss", "lost", reading, reading.totals.lost, reading.rates.lost);
    if (reading.hasBeenUp)
        object["silent_s"] = Rounded(static_cast<double>(now.monotonicUs - reading.inputChangedUs) / 1e6);
    const UdpSocketFacts* const socket = watched.facts ? watched.facts->Input() : nullptr;
    if (socket)
        object["kernel_drops"] = socket->drops;
    return object;
}

Json OutputObject(const Reading& reading)
{
    Json object = Json::object();
    if (reading.isUp)
        object["bit_rate"] = reading.statistics.sentBitRate;
    AddCount(object, "packet", "packets", reading, reading.totals.sent, reading.rates.sent);
    AddCount(
        object, "sent_beyond", "sent_beyond", reading, reading.totals.sentBeyond, reading.rates.sentBeyond);
    AddCount(object, "withheld", "withheld", reading, reading.totals.withheld, reading.rates.withheld);
    return object;
}

Json OptionsObject(const ProxyOptions& options)
{
    return { { "listen_port", options.listenPort }, { "group", options.group },
        { "media_port", options.mediaPort }, { "request_port", options.requestPort },
        { "ring_packets", options.ringPackets }, { "gross_bit_rate", options.grossBitRate },
        { "pacing_bit_rate", options.pacingBitRate } };
}

// The one that reports from this address: of several one that is live.
const ReporterView* ReporterAt(const std::string& address, const std::vector<ReporterView>& reporters)
{
    const ReporterView* found = nullptr;
    for (const ReporterView& reporter : reporters) {
        if (reporter.address == address && (!found || found->state != ReporterState::Live))
            found = &reporter;
    }
    return found;
}

Json ReceiversArray(const Channel& channel, const std::vector<ReporterView>& reporters, const Moment& now)
{
    Json array = Json::array();
    for (const WatchedReceiver& receiver : channel.receivers.All()) {
        array.push_back(
            { { "address", receiver.address }, { "state", receiver.isReceiving ? "receiving" : "gone" },
                { "since", Rounded(now.UnixOf(receiver.sinceUs)) } });
        if (const ReporterView* const reporter = ReporterAt(receiver.address, reporters))
            array.back()["report"] = ReportObject(*reporter);
    }
    return array;
}

Json Column(const std::vector<float>& values)
{
    Json column = Json::array();
    for (const float value : values)
        column.push_back(std::isnan(value) ? Json() : Json(Rounded(static_cast<double>(value))));
    return column;
}

constexpr const char* CURVE_NAMES[] = { "input_bit_rate", "output_bit_rate", "input_packets", "lost",
    "sent_beyond", "withheld", "receivers", "reported_missing", "reported_recovered", "reported_lost" };
static_assert(std::size(CURVE_NAMES) == CURVES);

// A proxy that is down has its reason with it: it has ended, it stands still, ssh is refused.
std::string StateSentence(const Channel& channel)
{
    std::string text = channel.alarm.Text();
    const std::string& problem = channel.watched.problem;
    if (channel.alarm.State() == ChannelState::Down && !problem.empty())
        text.replace(text.size() - 1, 1, ": " + problem + ".");
    return text;
}

} // namespace

Moment ThisMoment()
{
    timespec wall {};
    (void)clock_gettime(CLOCK_REALTIME, &wall);
    return { common::NowUs(), static_cast<double>(wall.tv_sec) + static_cast<double>(wall.tv_nsec) / 1e9 };
}

Json ChannelObject(const Channel& channel, const ReceiverTable& reports, const Moment& now)
{
    const WatchedChannel& watched = channel.watched;
    Json object { { "id", watched.id }, { "name", channel.name }, { "state", NameOf(channel.alarm.State()) },
        { "state_text", StateSentence(channel) }, { "since", Rounded(now.UnixOf(channel.alarm.SinceUs())) },
        { "up", watched.reading.isUp }, { "input", InputObject(watched, now) },
        { "output", OutputObject(watched.reading) }, { "resets", watched.reading.totals.resets },
        { "restarts", watched.reading.totals.restarts } };
    if (watched.facts)
        object["options"] = OptionsObject(watched.facts->options);
    if (const std::optional<bool> isImpaired = channel.loss.IsOn())
        object["impairment"] = *isImpaired;
    const std::vector<ReporterView> reporters = reports.Of(watched.id, now.monotonicUs);
    object["receivers"] = ReceiversArray(channel, reporters, now);
    object["reports"] = Json::array();
    for (const ReporterView& reporter : reporters)
        object["reports"].push_back(ReportObject(reporter));
    return object;
}

Json ChannelsObject(const Board& board, bool isControlAllowed, const Moment& now)
{
    Json channels = Json::array();
    for (const auto& channel : board.All())
        channels.push_back(ChannelObject(*channel, board.Reports(), now));
    return { { "version", TX_PROXY_VERSION }, { "time", Rounded(now.unixSeconds) },
        { "allow_control", isControlAllowed }, { "channels", std::move(channels) } };
}

Json HistoryObject(const Channel& channel, int64_t span, int64_t points, const Moment& now)
{
    const int64_t second = now.monotonicUs / common::US_PER_SECOND - 1; // the running one has no sample yet
    const History::Columns columns = channel.history.Read(second, span, points);
    Json times = Json::array();
    for (const int64_t begin : columns.seconds)
        times.push_back(std::llround(now.UnixOf(begin * common::US_PER_SECOND)));
    Json object { { "channel", channel.watched.id }, { "step_s", columns.stepSeconds },
        { "time", std::move(times) } };
    for (size_t curve = 0; curve < CURVES; curve++)
        object[CURVE_NAMES[curve]] = Column(columns.values[curve]);
    return object;
}

} // namespace arqctl
