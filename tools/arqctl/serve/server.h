#pragma once

#include <memory>
#include <string>

#include "arqctl/core/host_list.h"
#include "arqctl/core/web_route.h"
#include "arqctl/serve/board.h"
#include "arqctl/serve/control.h"
#include "arqctl/serve/control_token.h"
#include "arqctl/serve/event_clients.h"
#include "arqctl/serve/http_server.h"
#include "arqctl/serve/options.h"
#include "arqctl/serve/report_socket.h"
#include "arqctl/serve/watcher.h"
#include "arqctl/serve/web_reply.h"

namespace arqctl {

// The page, the interface and the event stream: who asks what, and who answers. Threads: the event loop's own.
class Server {
public:
    explicit Server(const ServeOptions& options);
    ~Server();

    // Takes its ports. False with what is wrong and what to do.
    bool Open(ServeEnd& end);
    // Until a signal says so.
    void Run();

private:
    static void Ticked(int fd, short what, void* self);
    static void Told(int fd, short what, void* self);
    void Tick();
    void SetTimer();
    void AllowOwnAddresses();
    bool TakeToken(ServeEnd& end);

    void Handle(evhttp_request* request);
    void Route(evhttp_request* request, const WebRequest& asked);
    WebReply Answer(const WebRoute& route, const WebRequest& asked);
    WebReply Page(const std::string& name, const WebRequest& asked) const;
    WebReply Health() const;
    WebReply State();
    WebReply Metrics();
    WebReply HistoryOf(const Channel& channel, const WebRequest& asked) const;
    WebReply OfChannel(const WebRoute& route, const WebRequest& asked) const;
    const std::string& StateText();

    const ServeOptions m_options;
    EventPtr<event_base> m_base;
    EventPtr<event> m_tick;
    EventPtr<event> m_interrupt;
    EventPtr<event> m_terminate;
    std::unique_ptr<HostList> m_hosts; // once the port is known
    Board m_board;
    EventClients m_events; // goes after m_http: its requests are freed with their connections
    HttpServer m_http;
    Control m_control; // goes before m_http, which its replies need
    ControlToken m_token;
    ReportSocket m_reports;
    std::shared_ptr<const std::string> m_stateText; // of this second; null: not asked for yet
    std::shared_ptr<const std::string> m_metricsText; // likewise
    std::unique_ptr<Watcher> m_watcher;
};

} // namespace arqctl
