#pragma once

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/http.h>
#include <event2/listener.h>
#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>

namespace arqctl {

// Frees what libevent made.
struct EventDeleter {
    void operator()(event_base* base) const { event_base_free(base); }
    void operator()(event* one) const { event_free(one); }
    void operator()(evhttp* http) const { evhttp_free(http); }
    void operator()(evbuffer* buffer) const { evbuffer_free(buffer); }
};
template <class Thing>
using EventPtr = std::unique_ptr<Thing, EventDeleter>;

// An HTTP server with limits on what a stranger can take: the size of a request, the time for it, the number of
// connections. What libevent finds malformed it refuses itself; every other request goes to the handler.
// Threads: the event loop's own.
class HttpServer {
public:
    static constexpr int PATIENCE_S = 10; // for a byte to come, or to be taken
    static constexpr int64_t REQUEST_US = 20'000'000; // for a whole request, counted from the one before
    static constexpr size_t MOST_CONNECTIONS = 512; // then the one that has been idle for longest ends

    HttpServer(event_base* base, std::function<void(evhttp_request*)> handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // "127.0.0.1:8080", "[::1]:8080", "*:8080".
    static bool IsAddress(const std::string& addressAndPort);
    // As it stands in a URL: "127.0.0.1", "[::1]"; "" for what is neither IPv4 nor IPv6.
    static std::string HostOf(const sockaddr* address);
    // False with the reason as a sentence.
    bool Listen(const std::string& addressAndPort, std::string& problem);
    const std::string& Address() const { return m_address; } // "127.0.0.1", "[::1]"
    uint16_t Port() const { return m_usPort; } // the one in use, with ":0" too

    // Once a second: ends what took too long.
    void Sweep();

    // A connection that waits on our side does not run out of time, until it is told that it does again.
    void HoldOpen(evhttp_request* request, bool isHeld);
    // Holds it open, and reads nothing from it until its reply is sent: libevent cannot take more before that.
    void Pause(evhttp_request* request);

private:
    // The reference keeps the buffer's record, not the connection: libevent may have closed it.
    struct Connection {
        bufferevent* buffer = nullptr;
        int64_t sinceUs = 0; // accepted, or its last request came
        bool isHeld = false;
        bool isEnded = false;
    };
    static bufferevent* Accepted(event_base* base, void* self);
    static void Requested(evhttp_request* request, void* self);
    static void AcceptFailed(evconnlistener* listener, void* self);
    Connection* Of(evhttp_request* request);
    void ForgetClosed();
    void EndOldest();

    event_base* const m_pBase;
    EventPtr<evhttp> m_http;
    const std::function<void(evhttp_request*)> m_handler;
    evconnlistener* m_pListener = nullptr; // evhttp's
    std::string m_address;
    uint16_t m_usPort = 0;
    std::list<Connection> m_connections; // in the order in which they came
};

} // namespace arqctl
