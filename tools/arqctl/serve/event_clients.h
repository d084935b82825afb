#pragma once

#include <event2/http.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace arqctl {

// The clients of the event stream (server-sent events, WHATWG HTML 9.2). An event is formatted once, and its bytes are
// shared by all. A client that does not read is dropped: a browser connects again by itself.
// Threads: the event loop's own.
class EventClients {
public:
    static constexpr size_t MOST_CLIENTS = 200;
    static constexpr size_t MOST_WAITING_BYTES = 256 * 1024; // for one client

    ~EventClients();

    bool HasRoom() const { return m_clients.size() < MOST_CLIENTS; }
    size_t Count() const { return m_clients.size(); }

    // Takes the request over and starts the stream with the newest event, if there is one.
    void Add(evhttp_request* request);
    // `json` has no line ends in it. One event to everyone.
    void SendState(const std::string& json);

private:
    struct Client {
        EventClients* owner = nullptr;
        evhttp_request* request = nullptr;
    };
    static void Closed(evhttp_connection* connection, void* client);
    void SendTo(const Client& client) const;
    static bool IsSlow(const Client& client);

    std::list<Client> m_clients; // their addresses are known to libevent
    std::shared_ptr<const std::string> m_newest;
    uint64_t m_nEvents = 0;
};

} // namespace arqctl
