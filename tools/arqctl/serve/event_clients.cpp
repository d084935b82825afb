#include "arqctl/serve/event_clients.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <sys/socket.h>

#include <utility>

#include "arqctl/serve/http_server.h"
#include "arqctl/serve/web_reply.h"

namespace arqctl {

namespace {

// What a client still sends is not read; this much of it is taken so that its going away is noticed.
constexpr size_t MOST_READ_BYTES = 4096;

bufferevent* BufferOf(evhttp_request* request)
{
    return evhttp_connection_get_bufferevent(evhttp_request_get_connection(request));
}

// What the kernel keeps for a client that does not read; the rest waits here and is counted.
constexpr int SEND_BUFFER_BYTES = 64 * 1024;

// Silence on the client's side is what it should keep, so only its taking has a limit.
void Limit(bufferevent* buffer)
{
    const timeval patience { HttpServer::PATIENCE_S, 0 };
    (void)bufferevent_set_timeouts(buffer, nullptr, &patience);
    bufferevent_setwatermark(buffer, EV_READ, 0, MOST_READ_BYTES);
    (void)setsockopt(
        bufferevent_getfd(buffer), SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER_BYTES, sizeof(SEND_BUFFER_BYTES));
}

} // namespace

EventClients::~EventClients()
{
    for (const Client& client : m_clients)
        evhttp_connection_set_closecb(evhttp_request_get_connection(client.request), nullptr, nullptr);
}

void EventClients::Add(evhttp_request* request)
{
    evkeyvalq* const fields = evhttp_request_get_output_headers(request);
    AddUsualFields(request);
    (void)evhttp_add_header(fields, "Content-Type", "text/event-stream");
    (void)evhttp_add_header(fields, "Cache-Control", "no-store");
    (void)evhttp_add_header(
        fields, "X-Accel-Buffering", "no"); // servers in front of this one pass events on at once
    m_clients.push_back({ this, request });
    evhttp_connection_set_closecb(evhttp_request_get_connection(request), Closed, &m_clients.back());
    evhttp_send_reply_start(request, HTTP_OK, nullptr);
    Limit(BufferOf(request));
    if (m_newest)
        SendTo(m_clients.back());
}

void EventClients::SendState(const std::string& json)
{
    m_newest = std::make_shared<const std::string>(
        "id: " + std::to_string(++m_nEvents) + "\nevent: state\ndata: " + json + "\n\n");
    for (auto client = m_clients.begin(); client != m_clients.end();) {
        const Client& one = *client++; // dropping takes it off the list
        if (IsSlow(one))
            evhttp_connection_free(evhttp_request_get_connection(one.request));
        else
            SendTo(one);
    }
}

void EventClients::SendTo(const Client& client) const
{
    const EventPtr<evbuffer> bytes(evbuffer_new());
    AddShared(bytes.get(), m_newest);
    evhttp_send_reply_chunk(client.request, bytes.get());
}

bool EventClients::IsSlow(const Client& client)
{
    return evbuffer_get_length(bufferevent_get_output(BufferOf(client.request))) > MOST_WAITING_BYTES;
}

void EventClients::Closed(evhttp_connection* /*connection*/, void* client)
{
    const auto* const gone = static_cast<const Client*>(client);
    EventClients& owner = *gone->owner;
    // libevent has let go of a request that it could not finish; otherwise it frees it with the connection.
    if (!evhttp_request_get_connection(gone->request))
        evhttp_send_reply_end(gone->request);
    owner.m_clients.remove_if([gone](const Client& other) { return &other == gone; });
}

} // namespace arqctl
