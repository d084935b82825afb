#include "arqctl/serve/http_server.h"

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "common/clock.h"
#include "common/endpoint.h"

namespace arqctl {

namespace {

constexpr ev_ssize_t MOST_HEADER_BYTES = 8192;
constexpr ev_ssize_t MOST_BODY_BYTES = 4096;
constexpr int BACKLOG = 128;

// Known methods all come to the handler, which says which ones a path has.
constexpr ev_uint16_t ALL_METHODS = EVHTTP_REQ_GET | EVHTTP_REQ_POST | EVHTTP_REQ_HEAD | EVHTTP_REQ_PUT
    | EVHTTP_REQ_DELETE | EVHTTP_REQ_OPTIONS | EVHTTP_REQ_TRACE | EVHTTP_REQ_CONNECT | EVHTTP_REQ_PATCH;

// "[ADDRESS]:PORT". False: it is none.
bool ParseAddress6(const std::string& text, sockaddr_in6& address)
{
    const size_t end = text.find("]:");
    uint16_t port = 0;
    if (!text.starts_with('[') || end == std::string::npos || !common::ParsePort(text.substr(end + 2), port))
        return false;
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    return inet_pton(AF_INET6, text.substr(1, end - 1).c_str(), &address.sin6_addr) == 1;
}

// False: no address with a port.
bool ParseListenAddress(const std::string& text, sockaddr_storage& address, int& length)
{
    common::Endpoint endpoint;
    length = sizeof(sockaddr_in6);
    if (ParseAddress6(text, reinterpret_cast<sockaddr_in6&>(address)))
        return true;
    length = sizeof(sockaddr_in);
    if (!common::ParseEndpoint(text, endpoint))
        return false;
    reinterpret_cast<sockaddr_in&>(address) = common::ToSockaddr(endpoint);
    return true;
}

uint16_t PortOf(const sockaddr_storage& address)
{
    return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                                               : reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

bool IsClosed(bufferevent* buffer)
{
    bufferevent_data_cb readable = nullptr;
    bufferevent_data_cb writable = nullptr;
    bufferevent_event_cb happened = nullptr;
    bufferevent_getcb(buffer, &readable, &writable, &happened, nullptr);
    return happened == nullptr; // freed by its connection: only our reference is left
}

// The connection then sees the end of its stream, and libevent ends it by its own rules.
void Shut(bufferevent* buffer)
{
    (void)shutdown(bufferevent_getfd(buffer), SHUT_RDWR);
}

} // namespace

HttpServer::HttpServer(event_base* base, std::function<void(evhttp_request*)> handler)
    : m_pBase(base),
      m_http(evhttp_new(base)),
      m_handler(std::move(handler))
{
    evhttp_set_max_headers_size(m_http.get(), MOST_HEADER_BYTES);
    evhttp_set_max_body_size(m_http.get(), MOST_BODY_BYTES);
    evhttp_set_allowed_methods(m_http.get(), ALL_METHODS);
    evhttp_set_default_content_type(m_http.get(), nullptr);
    evhttp_set_timeout(m_http.get(), PATIENCE_S);
    evhttp_set_bevcb(m_http.get(), Accepted, this);
    evhttp_set_gencb(m_http.get(), Requested, this);
}

HttpServer::~HttpServer()
{
    m_http.reset();
    for (const Connection& connection : m_connections)
        (void)bufferevent_decref(connection.buffer);
}

bool HttpServer::IsAddress(const std::string& addressAndPort)
{
    sockaddr_storage address {};
    int length = 0;
    return ParseListenAddress(addressAndPort, address, length);
}

std::string HttpServer::HostOf(const sockaddr* address)
{
    char text[INET6_ADDRSTRLEN] = "";
    const void* const raw = address; // of the family that it says
    if (address != nullptr && address->sa_family == AF_INET6) {
        (void)inet_ntop(AF_INET6, &static_cast<const sockaddr_in6*>(raw)->sin6_addr, text, sizeof(text));
        return std::string("[") + text + "]";
    }
    if (address != nullptr && address->sa_family == AF_INET)
        (void)inet_ntop(AF_INET, &static_cast<const sockaddr_in*>(raw)->sin_addr, text, sizeof(text));
    return text;
}

bool HttpServer::Listen(const std::string& addressAndPort, std::string& problem)
{
    sockaddr_storage address {};
    int length = 0;
    if (!ParseListenAddress(addressAndPort, address, length)) {
        problem = "'" + addressAndPort + "' is not ADDRESS:PORT";
        return false;
    }
    evconnlistener* const listener = evconnlistener_new_bind(m_pBase, nullptr, nullptr,
        LEV_OPT_REUSEABLE | LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, BACKLOG,
        reinterpret_cast<sockaddr*>(&address), length);
    if (!listener || !evhttp_bind_listener(m_http.get(), listener)) {
        problem = "cannot listen on " + addressAndPort + ": " + strerror(errno);
        return false;
    }
    m_pListener = listener;
    evconnlistener_set_error_cb(listener, AcceptFailed);
    socklen_t size = sizeof(address);
    (void)getsockname(evconnlistener_get_fd(listener), reinterpret_cast<sockaddr*>(&address), &size);
    m_address = HostOf(reinterpret_cast<const sockaddr*>(&address));
    m_usPort = PortOf(address);
    return true;
}

bufferevent* HttpServer::Accepted(event_base* base, void* self)
{
    auto& server = *static_cast<HttpServer*>(self);
    bufferevent* const buffer = bufferevent_socket_new(base, -1, 0); // the connection closes the descriptor
    if (!buffer)
        return nullptr;
    if (server.m_connections.size() >= MOST_CONNECTIONS)
        server.EndOldest();
    bufferevent_incref(buffer);
    server.m_connections.push_back({ buffer, common::NowUs() });
    return buffer;
}

void HttpServer::EndOldest()
{
    ForgetClosed();
    if (m_connections.size() < MOST_CONNECTIONS)
        return;
    const auto isIdle = [](const Connection& one) { return !one.isHeld && !one.isEnded; };
    const auto oldest = std::find_if(m_connections.begin(), m_connections.end(), isIdle);
    if (oldest == m_connections.end())
        return;
    oldest->isEnded = true;
    Shut(oldest->buffer);
}

void HttpServer::ForgetClosed()
{
    m_connections.remove_if([](const Connection& one) {
        const bool isClosed = IsClosed(one.buffer);
        if (isClosed)
            (void)bufferevent_decref(one.buffer);
        return isClosed;
    });
}

void HttpServer::Sweep()
{
    ForgetClosed();
    const int64_t oldestUs = common::NowUs() - REQUEST_US;
    for (Connection& one : m_connections) {
        if (one.isHeld || one.isEnded || one.sinceUs > oldestUs)
            continue;
        one.isEnded = true;
        Shut(one.buffer);
    }
    if (m_pListener)
        (void)evconnlistener_enable(m_pListener);
}

// No descriptor is left: the next sweep tries again, and until then nobody spins.
void HttpServer::AcceptFailed(evconnlistener* listener, void* /*self*/)
{
    (void)evconnlistener_disable(listener);
}

void HttpServer::Requested(evhttp_request* request, void* self)
{
    auto& server = *static_cast<HttpServer*>(self);
    if (Connection* const connection = server.Of(request))
        connection->sinceUs = common::NowUs();
    server.m_handler(request);
}

HttpServer::Connection* HttpServer::Of(evhttp_request* request)
{
    evhttp_connection* const connection = evhttp_request_get_connection(request);
    bufferevent* const buffer = connection ? evhttp_connection_get_bufferevent(connection) : nullptr;
    const auto found = std::find_if(m_connections.begin(), m_connections.end(),
        [buffer](const Connection& one) { return one.buffer == buffer; });
    return found == m_connections.end() ? nullptr : &*found;
}

void HttpServer::HoldOpen(evhttp_request* request, bool isHeld)
{
    Connection* const connection = Of(request);
    if (!connection)
        return;
    connection->isHeld = isHeld;
    connection->sinceUs = common::NowUs();
}

void HttpServer::Pause(evhttp_request* request)
{
    HoldOpen(request, true);
    (void)bufferevent_disable(
        evhttp_connection_get_bufferevent(evhttp_request_get_connection(request)), EV_READ);
}

} // namespace arqctl
