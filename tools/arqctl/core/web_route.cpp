#include "arqctl/core/web_route.h"

#include <vector>

#include "arqctl/core/url_text.h"

namespace arqctl {

namespace {

using Parts = std::vector<std::string>;

WebRoute PageRoute(const Parts& parts)
{
    std::string name;
    for (size_t part = 1; part < parts.size(); part++)
        name += (part > 1 ? "/" : "") + parts[part];
    return { Resource::PageFile, name, "" };
}

std::optional<WebRoute> ChannelRoute(const Parts& parts) // api v1 channels ID ...
{
    const size_t more = parts.size() - 4;
    if (more == 0)
        return WebRoute { Resource::Channel, parts[3], "" };
    const std::string& what = parts[4];
    if (more == 1 && what == "history")
        return WebRoute { Resource::History, parts[3], "" };
    if (more == 1 && what == "receivers")
        return WebRoute { Resource::Receivers, parts[3], "" };
    if (more == 1 && what == "impairment")
        return WebRoute { Resource::Impairment, parts[3], "" };
    if (more == 2 && what == "receivers")
        return WebRoute { Resource::Receiver, parts[3], parts[5] };
    return {};
}

std::optional<WebRoute> ApiRoute(const Parts& parts)
{
    if (parts.size() < 3 || parts[1] != "v1")
        return {};
    if (parts.size() == 3 && parts[2] == "channels")
        return WebRoute { Resource::Channels, "", "" };
    if (parts.size() == 3 && parts[2] == "events")
        return WebRoute { Resource::Events, "", "" };
    return parts[2] == "channels" && parts.size() > 3 ? ChannelRoute(parts) : std::nullopt;
}

} // namespace

std::optional<WebRoute> FindRoute(std::string_view path)
{
    const auto parts = PathParts(path);
    if (!parts)
        return {};
    const std::string& first = parts->front();
    if (first == "api")
        return ApiRoute(*parts);
    if (first == "page" && parts->size() > 1)
        return PageRoute(*parts);
    if (parts->size() != 1)
        return {};
    if (first.empty())
        return WebRoute { Resource::PageFile, "index.html", "" };
    if (first == "favicon.ico") // browsers ask for it by themselves
        return WebRoute { Resource::PageFile, "favicon.ico", "" };
    if (first == "healthz")
        return WebRoute { Resource::Health, "", "" };
    if (first == "metrics")
        return WebRoute { Resource::Metrics, "", "" };
    return {};
}

std::string_view AllowedMethods(Resource resource)
{
    if (resource == Resource::Receivers || resource == Resource::Impairment)
        return "POST";
    return resource == Resource::Receiver ? "DELETE" : "GET, HEAD";
}

bool IsAllowed(Resource resource, Method method)
{
    switch (method) {
    case Method::Get:
    case Method::Head:
        return AllowedMethods(resource).starts_with("GET");
    case Method::Post:
        return AllowedMethods(resource) == "POST";
    case Method::Delete:
        return AllowedMethods(resource) == "DELETE";
    case Method::Other:
        return false;
    }
    return false;
}

} // namespace arqctl
