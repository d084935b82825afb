#include "arqrx/cli/command_line.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <functional>
#include <memory>

#include "common/quantity.h"
#include "common_cli/help_formatter.h"

namespace arqrx {

namespace {

constexpr auto PURPOSE = "arqrx joins a stream of tx_proxy, gets back what the network lost, and plays it\n"
                         "out in order and on time.";

const std::vector<std::string> USAGE { "arqrx [options] PROXY[:PING_PORT]",
    "arqrx [options] --group ADDRESS:PORT [PROXY[:PING_PORT]]", "arqrx [options] --listen [ADDRESS:]PORT" };

constexpr auto EXAMPLES = R"(Examples:
  arqrx proxy.example.net --output udp://127.0.0.1:5000
      join at port 10000, ask at port 7020, give RTP to a player on this host
  arqrx 10.0.0.1 --latency 1s --output file:x.ts --output rtp://10.0.0.9:5004
      a second of time for repair; a file that plays, and RTP for a decoder
  arqrx 10.0.0.1 --output - | ffplay -
      straight into a player; figures go to standard error
  arqrx 10.0.0.1:10001 --group 239.1.1.1:10000 --interface eth0 --output -
      first sendings by multicast, what is missing by unicast
  arqrx --listen 10000 --proxy-request 10.0.0.1:7020 --strip-rtp \
        --output "udp://239.2.2.2:1234?ttl=4&interface=eth1"
      a stream that the proxy sends by itself (its -a), given on to a group
  arqrx 10.0.0.1 --json --interval 10s --metrics 9750
      no output: figures only, as JSON and for Prometheus
  arqrx 10.0.0.1 --output - --report 10.0.0.5:8080 --report-name studio-b
      tell the control room, where arqctl serve runs, what was lost

Exit status: 0 good, 1 more lost than --fail-on-loss or --max-loss allow,
2 wrong usage, 3 no media ever came, 4 could not start, 5 an output failed.
)";

// The values of options that are texts with a unit or a form of their own. Each throws what is wrong with it.
[[noreturn]] void Refuse(const std::string& option, const std::string& text, const std::string& wanted)
{
    throw CLI::ValidationError(option, "'" + text + "' is not " + wanted);
}

using Setter = std::function<void(const std::string&)>;

Setter Duration(const std::string& option, int64_t& us)
{
    return [=, &us](const std::string& text) {
        if (!common::ParseDuration(text, us))
            Refuse(option, text, "a time; write 600ms, 1s or 250us");
    };
}

Setter BitRate(const std::string& option, uint32_t& bitsPerSecond)
{
    return [=, &bitsPerSecond](const std::string& text) {
        int64_t value = 0;
        if (!common::ParseBitRate(text, value) || value < 1 || value > UINT32_MAX)
            Refuse(option, text, "a bit rate up to 4.2G; write 50M or 800k");
        bitsPerSecond = static_cast<uint32_t>(value);
    };
}

// A number from 1 to `most`.
Setter Whole(const std::string& option, const std::string& wanted, uint32_t most,
    const std::function<void(uint32_t)>& set)
{
    return [=](const std::string& text) {
        uint32_t value = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error != std::errc {} || end != text.data() + text.size() || value < 1 || value > most)
            Refuse(option, text, wanted);
        set(value);
    };
}

constexpr int64_t SMALLEST_BUFFER_BYTES = 64'000;
constexpr int64_t LARGEST_BUFFER_BYTES = 1'000'000'000;

Setter Size(const std::string& option, int64_t least, int64_t most, const std::function<void(int64_t)>& set)
{
    return [=](const std::string& text) {
        int64_t value = 0;
        if (!common::ParseSize(text, value) || value < least || value > most)
            Refuse(option, text, "a size from 64k to 1G; write 8M or 64k");
        set(value);
    };
}

Setter Local(const std::string& option, std::optional<common::Endpoint>& endpoint)
{
    return [=, &endpoint](const std::string& text) {
        common::Endpoint found;
        const bool isRead = common::ParseEndpoint(text, found) || common::ParsePort(text, found.port)
            || common::ParseAddress(text, found.address);
        if (!isRead)
            Refuse(option, text, "ADDRESS:PORT, ADDRESS or PORT");
        endpoint = found;
    };
}

Setter WithPort(const std::string& option, std::optional<common::Endpoint>& endpoint)
{
    return [=, &endpoint](const std::string& text) {
        common::Endpoint found;
        if ((!common::ParseEndpoint(text, found) && !common::ParsePort(text, found.port)) || found.port == 0)
            Refuse(option, text, "ADDRESS:PORT, with a port from 1 to 65535");
        endpoint = found;
    };
}

// Everything that is read before it is put into Options.
struct Texts {
    std::string id = "auto";
    bool isNotAsking = false;
    bool isNotPinging = false;
    bool isFailingOnLoss = false;
};

void AddSourceOptions(CLI::App& app, Options& options)
{
    const auto group = "Source";
    app.add_option_function<std::string>("proxy",
           [&options](const std::string& text) {
               if (!ParseHost(text, options.proxyHost, options.pingPort))
                   Refuse("PROXY", text, "HOST or HOST:PING_PORT");
           })
        ->type_name("PROXY[:PING_PORT]")
        ->description("the proxy that is pinged for the stream; its -p, or -b of a group [port 10000]");
    app.add_option_function<std::string>("--request-port",
           Whole("--request-port", "a port from 1 to 65535", 65'535,
               [&options](uint32_t value) { options.requestPort = static_cast<uint16_t>(value); }),
           "the proxy's port that is asked for packets, its -r [7020]")
        ->type_name("PORT")
        ->group(group);
    app.add_option_function<std::string>(
           "--group", WithPort("--group", options.group), "first sendings come to this multicast group")
        ->type_name("ADDRESS:PORT")
        ->group(group);
    app.add_option("--interface", options.networkInterface, "join the group on it: a name or its address")
        ->type_name("NAME")
        ->group(group);
    app.add_option_function<std::string>("--listen", WithPort("--listen", options.listen),
           "a stream that the proxy sends here by itself (-a): no pings")
        ->type_name("[ADDRESS:]PORT")
        ->group(group);
    app.add_option_function<std::string>(
           "--proxy-request",
           [&options](const std::string& text) {
               if (!ParseHost(text, options.proxyHost, options.requestPort))
                   Refuse("--proxy-request", text, "HOST or HOST:PORT");
           },
           "with --listen: who is asked for packets")
        ->type_name("HOST[:PORT]")
        ->group(group);
}

// How the proxy knows us.
void AddMembershipOptions(CLI::App& app, Options& options, Texts& texts)
{
    const auto group = "Source";
    app.add_option_function<std::string>(
           "--bind", Local("--bind", options.bind), "speak to the proxy from here")
        ->type_name("[ADDRESS:]PORT")
        ->group(group);
    app.add_option(
           "--id", texts.id, "stream ID: tells receivers behind one address apart; auto: random [auto]")
        ->type_name("N|auto|none")
        ->group(group);
    app.add_flag("--no-ping", texts.isNotPinging, "the proxy sends to us without being pinged")->group(group);
    app.add_option_function<std::string>("--ping-interval",
           Duration("--ping-interval", options.settings.pingIntervalUs),
           "between two pings, at most 4.9s [1s]")
        ->type_name("TIME")
        ->group(group);
    app.add_option_function<std::string>("--rejoin-after",
           Duration("--rejoin-after", options.settings.silenceUs),
           "when nothing has come for so long: leave, look the proxy up and join anew [3s]")
        ->type_name("TIME")
        ->group(group);
    app.add_option_function<std::string>("--stay-away",
           Duration("--stay-away", options.settings.rejoinAfterUs),
           "after the proxy's stop message, before joining anew; 0: for ever [10s]")
        ->type_name("TIME")
        ->group(group);
    app.add_option_function<std::string>("--receive-buffer",
           Size("--receive-buffer", SMALLEST_BUFFER_BYTES, LARGEST_BUFFER_BYTES,
               [&options](int64_t v) { options.receiveBufferBytes = static_cast<int>(v); }),
           "room in the kernel for what is not read yet [8M]")
        ->type_name("SIZE")
        ->group(group);
}

void AddRepairOptions(CLI::App& app, Options& options, Texts& texts)
{
    const auto group = "Repair";
    Settings& settings = options.settings;
    app.add_option_function<std::string>("--latency", Duration("--latency", settings.latencyUs),
           "from a packet's arrival to its play-out: the time for repair [600ms]")
        ->type_name("TIME")
        ->group(group);
    app.add_flag("--no-ask", texts.isNotAsking, "count what is missing, do not ask for it")->group(group);
    app.add_option_function<std::string>("--hold-off", Duration("--hold-off", settings.holdOffUs),
           "the proxy sends no packet again sooner than this [100ms]")
        ->type_name("TIME")
        ->group(group);
    app.add_option_function<std::string>("--ring",
           Whole("--ring", "a number of packets from 1 to 65536", 65'536,
               [&settings](uint32_t value) { settings.ringPackets = value; }),
           "packets that the proxy remembers, its -q [4096]")
        ->type_name("COUNT")
        ->group(group);
    app.add_option_function<std::string>("--max-packets",
           Whole("--max-packets", "a number of packets from 1 to 1000000", 1'000'000,
               [&settings](uint32_t value) { settings.mostPackets = value; }),
           "packets that wait at a time, which bounds the memory [65536]")
        ->type_name("COUNT")
        ->group(group);
    app.add_option_function<std::string>("--proxy-bit-rate",
           BitRate("--proxy-bit-rate", settings.proxyBitRate),
           "bounds what one request brings, the proxy's -G [50M]")
        ->type_name("RATE")
        ->group(group);
}

void AddOutputOptions(CLI::App& app, Options& options)
{
    const auto group = "Outputs";
    app.add_option_function<std::vector<std::string>>(
           "--output",
           [&options](const std::vector<std::string>& texts) {
               for (const std::string& text : texts) {
                   std::string problem;
                   options.outputs.emplace_back();
                   if (!ParseOutput(text, options.outputs.back(), problem))
                       throw CLI::ValidationError("--output", problem);
               }
           },
           "udp://HOST:PORT, rtp://HOST:PORT, file:PATH or - (standard output); may be repeated. To a group "
           "with ?ttl=4&interface=eth1 and, if need be, &source=ADDRESS")
        ->type_name("WHERE")
        ->allow_extra_args(false) // one value each time: what follows may be the PROXY
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->group(group);
    app.add_flag("--strip-rtp", options.isStripping, "udp:// without the RTP header; rtp:// keeps it")
        ->group(group);
    app.add_flag("--keep-rtp", options.isKeepingRtp,
           "file: and - with RTP header and length (RFC 4571), not only payload")
        ->group(group);
    app.add_option_function<std::string>("--write-buffer",
           Size("--write-buffer", SMALLEST_BUFFER_BYTES, LARGEST_BUFFER_BYTES,
               [&options](int64_t v) { options.writeBufferBytes = v; }),
           "what may wait for a slow file or pipe; beyond it packets are dropped [16M]")
        ->type_name("SIZE")
        ->group(group);
    app.add_option("--decrypt", options.decryptionLibrary,
           "the encryption library that the proxy has loaded (-z, -Z): play out in clear")
        ->type_name("LIBRARY")
        ->group(group);
    app.add_option(
           "--password-file", options.passwordFile, "its first line is the password of the proxy's -Z")
        ->type_name("FILE")
        ->group(group);
}

void AddReportOptions(CLI::App& app, Options& options)
{
    const auto group = "Figures";
    app.add_flag("--json", options.isJson, "a JSON object a line")->group(group);
    app.add_flag("--quiet", options.isQuiet, "no figures; messages only")->group(group);
    app.add_option_function<std::string>(
           "--interval", Duration("--interval", options.intervalUs), "between two lines of figures [1s]")
        ->type_name("TIME")
        ->group(group);
    app.add_option_function<std::string>(
           "--metrics",
           [&options](const std::string& text) {
               common::Endpoint endpoint;
               if (common::ParsePort(text, endpoint.port))
                   options.metrics = "127.0.0.1:" + text;
               else if (common::ParseEndpoint(text, endpoint))
                   options.metrics = common::EndpointText(endpoint);
               if (endpoint.port == 0)
                   Refuse("--metrics", text, "ADDRESS:PORT or PORT, with a port from 1 to 65535");
           },
           "for Prometheus, at /metrics; a port alone is on 127.0.0.1")
        ->type_name("[ADDRESS:]PORT")
        ->group(group);
    app.add_option_function<std::string>(
           "--report",
           [&options](const std::string& text) {
               std::string problem;
               if (!ParseReportAddress(text, options.report, problem))
                   throw CLI::ValidationError("--report", problem);
           },
           "figures for an arqctl serve, each second; CHANNEL as it names the proxy, found by itself without")
        ->type_name("HOST:PORT[/CHANNEL]")
        ->group(group);
    app.add_option_function<std::string>(
           "--report-name",
           [&options](const std::string& text) {
               if (!IsReportText(text, LONGEST_REPORT_NAME))
                   Refuse("--report-name", text, "a name of 1 to 64 bytes without control characters");
               options.reportName = text;
           },
           "who this is in reports; this machine's name without")
        ->type_name("NAME")
        ->group(group);
}

void AddEndOptions(CLI::App& app, Options& options, Texts& texts)
{
    const auto group = "End";
    app.add_option_function<std::string>(
           "--duration", Duration("--duration", options.durationUs), "end after so long")
        ->type_name("TIME")
        ->group(group);
    app.add_option_function<std::string>("--exit-after-silence",
           Duration("--exit-after-silence", options.exitAfterSilenceUs),
           "end when nothing has come for so long")
        ->type_name("TIME")
        ->group(group);
    app.add_flag("--drain", options.isDraining, "play out what is buffered before the end")->group(group);
    app.add_flag("--fail-on-loss", texts.isFailingOnLoss, "exit status 1 if a packet was lost")->group(group);
    app.add_option_function<std::string>(
           "--max-loss",
           [&options](const std::string& text) {
               double share = 0;
               if (!common::ParseRatio(text, share))
                   Refuse("--max-loss", text, "a share; write 0.1% or 0.001");
               options.mostLoss = share;
           },
           "exit status 1 if a larger share of the packets was lost")
        ->type_name("SHARE")
        ->group(group);
}

void Describe(CLI::App& app, Options& options, Texts& texts)
{
    AddSourceOptions(app, options);
    AddMembershipOptions(app, options, texts);
    AddRepairOptions(app, options, texts);
    AddOutputOptions(app, options);
    AddReportOptions(app, options);
    AddEndOptions(app, options, texts);
    app.formatter(std::make_shared<common::HelpFormatter>(USAGE));
    app.set_help_flag("-h,--help", "show this and end");
    app.set_version_flag("--version", "arqrx " TX_PROXY_VERSION, "show the version and end");
    app.set_config("--config", "", "read options from FILE, as lines like latency=1s")->type_name("FILE");
    app.allow_config_extras(CLI::config_extras_mode::error); // a name that is misspelt is no setting
    app.footer(EXAMPLES);
}

// Takes over what stands between options; what is wrong as a sentence.
std::string Settle(Options& options, const CLI::App& app, const Texts& texts)
{
    if (app.count("--proxy-request") > 0 && !options.listen)
        return "--proxy-request goes with --listen; a PROXY is asked at --request-port";
    if (app.count("--proxy-request") > 0 && app.count("proxy") > 0)
        return "PROXY and --proxy-request are two proxies; name one";
    if (app.count("proxy") > 0 && options.listen)
        return "--listen is for a stream that is not pinged for; with a PROXY use --bind, perhaps with --no-ping";
    const bool isAuto = texts.id == "auto";
    if (!isAuto && !ParseStreamId(texts.id, options.settings.streamId))
        return "--id: '" + texts.id
            + "' is not a number from 1 to 4294967295 (or 0x1 to 0xFFFFFFFF), auto or none";
    if (isAuto && !options.listen) // who is configured by its address has no ID
        options.settings.streamId = RandomStreamId();
    const bool hasProxy = !options.proxyHost.empty();
    options.settings.isPinging = hasProxy && !options.listen && !texts.isNotPinging;
    options.settings.isAsking = hasProxy && !texts.isNotAsking;
    if (texts.isFailingOnLoss)
        options.mostLoss = 0;
    return Contradiction(options);
}

} // namespace

CommandLine ReadCommandLine(int argc, const char* const* argv)
{
    CommandLine line;
    Texts texts;
    CLI::App app(PURPOSE, "arqrx");
    try {
        Describe(app, line.options, texts);
        app.parse(argc, argv);
        const std::string wrong = Settle(line.options, app, texts);
        line.isRunning = wrong.empty();
        line.isError = !wrong.empty();
        line.text = wrong;
    } catch (const CLI::CallForHelp&) {
        line.text = app.help();
    } catch (const CLI::CallForVersion& version) {
        line.text = std::string(version.what()) + "\n";
    } catch (const std::exception& error) {
        line.isError = true;
        line.text = error.what();
    }
    return line;
}

} // namespace arqrx
