#pragma once

#include <optional>
#include <string>
#include <vector>

namespace arqctl {

enum class Method { Get, Head, Post, Delete, Other };

// What of an HTTP request is looked at. Texts are as they came: nothing is trusted yet.
struct WebRequest {
    Method method = Method::Other;
    std::string path; // not decoded, without the query
    std::string query; // behind '?'
    std::vector<std::string> hosts; // of each Host field, and of a target in absolute form
    std::optional<std::string> origin; // fields that are missing are not the same as empty ones
    std::optional<std::string> fetchSite; // Sec-Fetch-Site
    std::optional<std::string> token; // X-Arqctl-Token
    std::string contentType;
    std::string ifNoneMatch;
    std::string body;

    bool ChangesSomething() const { return method != Method::Get && method != Method::Head; }
};

// Why a request is not served: one sentence what is wrong, one what to do.
struct Refusal {
    int status = 0; // of HTTP
    std::string error;
    std::string advice;
};

} // namespace arqctl
