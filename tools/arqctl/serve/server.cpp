#include "arqctl/serve/server.h"

#include <ifaddrs.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>

#include "arqctl/core/url_text.h"
#include "arqctl/core/web_checks.h"
#include "arqctl/serve/channel_json.h"
#include "arqctl/serve/channel_metrics.h"
#include "arqctl/serve/page_files.h"
#include "arqctl/serve/report_metrics.h"
#include "common/clock.h"

namespace arqctl {

namespace {

constexpr rlim_t WANTED_DESCRIPTORS = 4096;

// Connections have a limit of their own, below what this allows.
void AllowDescriptors()
{
    rlimit limit {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= WANTED_DESCRIPTORS)
        return;
    limit.rlim_cur = std::min(limit.rlim_max, WANTED_DESCRIPTORS);
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

WebReply NotFound(const std::string& what)
{
    return RefusalReply(
        { 404, what, "the page is at /, the interface at /api/v1/channels, metrics at /metrics" });
}

WebReply TextReply(int status, std::string text)
{
    WebReply reply = JsonReply(status, std::move(text));
    reply.type = "text/plain; charset=utf-8";
    return reply;
}

// For HEAD: what the stream would begin with.
WebReply EventsHead()
{
    WebReply reply;
    reply.type = "text/event-stream";
    return reply;
}

std::string Dumped(const nlohmann::ordered_json& object)
{
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

} // namespace

Server::Server(const ServeOptions& options)
    : m_options(options),
      m_base(event_base_new()),
      m_tick(evtimer_new(m_base.get(), Ticked, this)),
      m_interrupt(evsignal_new(m_base.get(), SIGINT, Told, this)),
      m_terminate(evsignal_new(m_base.get(), SIGTERM, Told, this)),
      m_board(options.channelNames),
      m_http(m_base.get(), [this](evhttp_request* request) { Handle(request); }),
      m_control(m_base.get(), m_http, m_board, options.patienceUs),
      m_reports(m_base.get(), [this](std::string_view datagram, const common::Endpoint& source) {
          m_board.TakeReport(datagram, source, common::NowUs());
      })
{
}

Server::~Server() = default;

bool Server::Open(ServeEnd& end)
{
    (void)signal(SIGPIPE, SIG_IGN); // a client that goes away is an error of one write
    AllowDescriptors();
    if (!m_http.Listen(m_options.listen, end.problem)) {
        end.advice = "choose another one with --listen ADDRESS:PORT";
        return false;
    }
    const std::string own = m_http.Address() + ":" + std::to_string(m_http.Port());
    const bool isIpv6 = own.starts_with('['); // receivers are of IPv4
    const std::string usual = isIpv6 ? "off" : own;
    const std::string reports = m_options.reports.empty() ? usual : m_options.reports;
    if (reports != "off" && !m_reports.Open(reports, end.problem)) {
        end.advice = "choose another one with --reports ADDRESS:PORT, or take none with --reports off";
        return false;
    }
    m_hosts = std::make_unique<HostList>(m_http.Address(), m_http.Port());
    if (m_http.Address() == "0.0.0.0" || m_http.Address() == "[::]")
        AllowOwnAddresses();
    for (const std::string& name : m_options.allowedHosts)
        m_hosts->Allow(name);
    if (!TakeToken(end))
        return false;
    if (m_options.started)
        m_options.started("http://" + own + "/", m_token.Path());
    return true;
}

// Who listens on every address is asked by each of them. An address is no name that could be made to point here.
void Server::AllowOwnAddresses()
{
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0)
        return;
    for (const ifaddrs* one = first; one != nullptr; one = one->ifa_next) {
        if (const std::string host = HttpServer::HostOf(one->ifa_addr); !host.empty())
            m_hosts->Allow(host + ":" + std::to_string(m_http.Port()));
    }
    freeifaddrs(first);
}

bool Server::TakeToken(ServeEnd& end)
{
    if (!m_options.isControlAllowed)
        return true;
    end.advice = "write one with 'openssl rand -hex 16', or leave --token-file out: then one is made";
    return m_options.tokenFile.empty() ? m_token.Make(end.problem)
                                       : m_token.Read(m_options.tokenFile, end.problem);
}

void Server::Run()
{
    (void)event_add(m_interrupt.get(), nullptr);
    (void)event_add(m_terminate.get(), nullptr);
    m_watcher = std::make_unique<Watcher>(m_options.targets, m_options.patienceUs);
    SetTimer();
    (void)event_base_dispatch(m_base.get());
    m_watcher.reset();
}

void Server::Told(int /*fd*/, short /*what*/, void* self)
{
    (void)event_base_loopbreak(static_cast<Server*>(self)->m_base.get());
}

void Server::Ticked(int /*fd*/, short /*what*/, void* self)
{
    auto& server = *static_cast<Server*>(self);
    server.Tick();
    server.SetTimer();
}

// In the middle of each second: a loop that is a little late still hits every one.
void Server::SetTimer()
{
    const int64_t half = common::US_PER_SECOND / 2;
    const int64_t leftUs = common::US_PER_SECOND - (common::NowUs() + half) % common::US_PER_SECOND;
    const timeval left { 0, static_cast<suseconds_t>(std::min(leftUs, common::US_PER_SECOND - 1)) };
    (void)event_add(m_tick.get(), &left);
}

void Server::Tick()
{
    m_board.Take(*m_watcher->Latest(), common::NowUs());
    m_stateText.reset();
    m_metricsText.reset();
    m_events.SendState(StateText());
    m_http.Sweep();
}

void Server::Handle(evhttp_request* request)
{
    const WebRequest asked = ReadRequest(request);
    if (const auto refusal = CheckHost(*m_hosts, asked))
        return Send(request, RefusalReply(*refusal));
    Route(request, asked);
}

void Server::Route(evhttp_request* request, const WebRequest& asked)
{
    const auto route = FindRoute(asked.path);
    if (!route)
        return Send(request, NotFound("there is nothing at this path"));
    if (!IsAllowed(route->resource, asked.method)) {
        WebReply reply = RefusalReply(
            { 405, "this path does not have that method", "the Allow field says which it has" });
        reply.fields.emplace_back("Allow", AllowedMethods(route->resource));
        return Send(request, reply);
    }
    if (asked.ChangesSomething()) {
        if (const auto refusal = CheckChange(*m_hosts, m_token.Text(), asked))
            return Send(request, RefusalReply(*refusal));
        return m_control.Handle(request, *route, asked);
    }
    if (route->resource != Resource::Events || asked.method == Method::Head)
        return Send(request, Answer(*route, asked));
    if (m_events.HasRoom()) {
        m_http.HoldOpen(request, true);
        return m_events.Add(request);
    }
    WebReply reply
        = RefusalReply({ 503, "200 event streams are open already", "close some pages, and try again" });
    reply.fields.emplace_back("Retry-After", "10");
    Send(request, reply);
}

WebReply Server::Answer(const WebRoute& route, const WebRequest& asked)
{
    switch (route.resource) {
    case Resource::PageFile:
        return Page(route.name, asked);
    case Resource::Health:
        return Health();
    case Resource::Metrics:
        return Metrics();
    case Resource::Channels:
        return State();
    case Resource::Channel:
    case Resource::History:
        return OfChannel(route, asked);
    case Resource::Events:
        return EventsHead();
    case Resource::Receivers:
    case Resource::Receiver:
    case Resource::Impairment:
        break;
    }
    return NotFound("there is nothing at this path");
}

WebReply Server::Page(const std::string& name, const WebRequest& asked) const
{
    const PageFile* const file = FindPageFile(name);
    if (!file)
        return NotFound("the page has no such file");
    WebReply reply;
    reply.type = file->type;
    reply.fields = { { "ETag", std::string(file->tag) }, { "Cache-Control", "no-cache" } };
    if (asked.ifNoneMatch.find(file->tag) != std::string::npos)
        reply.status = 304;
    else
        reply.bytes = file->bytes;
    return reply;
}

WebReply Server::Health() const
{
    std::string reason;
    return m_board.IsFresh(reason) ? TextReply(200, "ok\n") : TextReply(503, reason + "\n");
}

const std::string& Server::StateText()
{
    if (!m_stateText)
        m_stateText = std::make_shared<const std::string>(
            Dumped(ChannelsObject(m_board, m_options.isControlAllowed, ThisMoment())));
    return *m_stateText;
}

WebReply Server::State()
{
    (void)StateText();
    WebReply reply;
    reply.text = m_stateText;
    return reply;
}

WebReply Server::Metrics()
{
    if (!m_metricsText) {
        MetricList list;
        const Moment now = ThisMoment();
        AddChannelMetrics(m_board, now, list);
        list.AddFamilies(ReportFamilies(m_board.Reports(), now.monotonicUs));
        AddOwnMetrics(m_events.Count(), list);
        m_metricsText = std::make_shared<const std::string>(list.Text());
    }
    WebReply reply;
    reply.type = "text/plain; version=0.0.4; charset=utf-8";
    reply.text = m_metricsText;
    return reply;
}

WebReply Server::OfChannel(const WebRoute& route, const WebRequest& asked) const
{
    const Channel* const channel = m_board.Find(route.name);
    if (!channel)
        return RefusalReply({ 404, "there is no such channel", "/api/v1/channels lists those there are" });
    if (route.resource == Resource::History)
        return HistoryOf(*channel, asked);
    return JsonReply(200, Dumped(ChannelObject(*channel, m_board.Reports(), ThisMoment())));
}

WebReply Server::HistoryOf(const Channel& channel, const WebRequest& asked) const
{
    constexpr int SHORTEST_SPAN = 60;
    constexpr int LONGEST_SPAN = History::COARSE_SECONDS;
    constexpr int MOST_POINTS = 1000;
    const auto span = QueryNumber(asked.query, "span", 300);
    const auto points = QueryNumber(asked.query, "points", 600);
    if (!span || *span < SHORTEST_SPAN || *span > LONGEST_SPAN)
        return RefusalReply(
            { 400, "span is not 60 to 86400 seconds", "ask for history?span=300&points=600" });
    if (!points || *points < 1 || *points > MOST_POINTS)
        return RefusalReply({ 400, "points is not 1 to 1000", "ask for history?span=300&points=600" });
    return JsonReply(200, Dumped(HistoryObject(channel, *span, *points, ThisMoment())));
}

ServeEnd Serve(const ServeOptions& options)
{
    ServeEnd end;
    Server server(options);
    if (server.Open(end))
        server.Run();
    return end;
}

} // namespace arqctl
