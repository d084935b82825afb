#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "arqctl/proxy/target.h"

namespace arqctl {

// What the command line of the server says.
struct ServeOptions {
    std::string listen = "127.0.0.1:8080"; // ADDRESS:PORT, [ADDRESS]:PORT, *:PORT
    std::vector<std::string> allowedHosts;
    bool isControlAllowed = false;
    std::string tokenFile; // "": one is made
    // ADDRESS:PORT for the reports of receivers; "": as listen, where that is IPv4; "off"
    std::string reports;
    std::map<std::string, std::string> channelNames; // by Target::Name()
    std::vector<Target> targets; // empty: whatever runs here
    int64_t patienceUs = 0; // for one answer of a proxy
    // Told once all ports are taken: the page's address, and the file of the token ("": no control).
    std::function<void(const std::string& url, const std::string& tokenFile)> started;
};

// Why the server does not start, or has ended.
struct ServeEnd {
    std::string problem; // "": it was told to end
    std::string advice;
};

// Serves until SIGTERM or SIGINT. Threads: the caller's for all of HTTP, and some of its own that ask the proxies.
ServeEnd Serve(const ServeOptions& options);

} // namespace arqctl
