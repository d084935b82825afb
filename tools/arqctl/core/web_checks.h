#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "arqctl/core/host_list.h"
#include "arqctl/core/web_request.h"

namespace arqctl {

// The checks of a request, each for itself; nothing when it passes.

// On every path: exactly one Host (RFC 9112, 3.2), and each name given on the list. 400 or 421.
std::optional<Refusal> CheckHost(const HostList& hosts, const WebRequest& request);

// On whatever changes something: a browser says where the request comes from, and then it has to be our own page. Programs
// say nothing and pass. 403.
std::optional<Refusal> CheckOrigin(const HostList& hosts, const WebRequest& request);

// On whatever changes something. An empty `token` means that control is off. 403.
std::optional<Refusal> CheckToken(std::string_view token, const WebRequest& request);

// A body has to be JSON by its own word: a form of another page can send no such thing unasked. 415.
std::optional<Refusal> CheckContentType(const WebRequest& request);

// Takes the same time whatever part of `given` is right.
bool IsSameToken(std::string_view token, std::string_view given);

// A token as people make them: 16 to 256 characters that can stand in a header field, no blanks.
bool IsGoodToken(std::string_view token);

// `type` or "type; ..." in letters of either case.
bool IsJsonType(std::string_view contentType);

} // namespace arqctl
