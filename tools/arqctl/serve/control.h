#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "arqctl/core/host_list.h"
#include "arqctl/core/web_route.h"
#include "arqctl/serve/board.h"
#include "arqctl/serve/job_pool.h"
#include "arqctl/serve/order.h"

namespace arqctl {

// Whether a request may change something: the three checks that reading does not need.
std::optional<Refusal> CheckChange(const HostList& hosts, std::string_view token, const WebRequest& asked);

// Changes what a request says, away from the event loop, and answers it then. Threads: the event loop's own.
class Control {
public:
    Control(event_base* base, HttpServer& http, Board& board, int64_t patienceUs);

    // Takes the request over: it has passed CheckChange.
    void Handle(evhttp_request* request, const WebRoute& route, const WebRequest& asked);

private:
    std::optional<Refusal> CheckRoom(const Channel* channel) const;
    void Start(evhttp_request* request, const Channel& channel, const Order& order);
    void Finish(evhttp_request* request, const std::string& id, const Order& order, const WebReply& reply);

    HttpServer& m_http;
    Board& m_board;
    const int64_t m_patienceUs;
    JobPool m_jobs;
};

} // namespace arqctl
