#pragma once

#include <event2/http.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "arqctl/core/web_request.h"

namespace arqctl {

// What goes back to a request that is answered at once.
struct WebReply {
    int status = 200;
    std::string_view type = "application/json"; // of something that lives for ever
    std::shared_ptr<const std::string> text; // the body, shared with other replies; or
    std::string_view bytes; // one that lives for ever
    std::vector<std::pair<std::string, std::string>> fields; // beyond those that every reply has
};

WebReply JsonReply(int status, std::string text);

// {"error": ..., "advice": ...}
WebReply RefusalReply(const Refusal& refusal);

WebRequest ReadRequest(evhttp_request* request);

// What every reply carries: nothing is taken from elsewhere, embedded elsewhere or told elsewhere. There is no CORS.
void AddUsualFields(evhttp_request* request);

// The buffer shares the text until it has been sent.
void AddShared(evbuffer* buffer, std::shared_ptr<const std::string> text);

void Send(evhttp_request* request, const WebReply& reply);

} // namespace arqctl
