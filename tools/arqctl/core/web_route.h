#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "arqctl/core/web_request.h"

namespace arqctl {

// What can be asked for.
enum class Resource {
    PageFile,
    Health,
    Metrics,
    Channels,
    Channel,
    History,
    Events,
    Receivers,
    Receiver,
    Impairment
};

struct WebRoute {
    Resource resource = Resource::PageFile;
    std::string name; // of a page's file, or the channel's ID
    std::string address; // of a Receiver
};

// Where a request's path leads. Empty: nowhere. Names are decoded, and may be anything.
std::optional<WebRoute> FindRoute(std::string_view path);

// As it stands in an Allow field: "GET, HEAD".
std::string_view AllowedMethods(Resource resource);
bool IsAllowed(Resource resource, Method method);

} // namespace arqctl
