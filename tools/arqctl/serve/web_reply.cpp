#include "arqctl/serve/web_reply.h"

#include <event2/buffer.h>
#include <event2/keyvalq_struct.h>
#include <strings.h>

#include <nlohmann/json.hpp>

#include "arqctl/serve/http_server.h"

namespace arqctl {

namespace {

Method MethodOf(evhttp_request* request)
{
    const evhttp_cmd_type command = evhttp_request_get_command(request);
    if (command == EVHTTP_REQ_GET)
        return Method::Get;
    if (command == EVHTTP_REQ_HEAD)
        return Method::Head;
    if (command == EVHTTP_REQ_POST)
        return Method::Post;
    return command == EVHTTP_REQ_DELETE ? Method::Delete : Method::Other;
}

std::optional<std::string> Field(const evkeyvalq* fields, const char* name)
{
    const char* const value = evhttp_find_header(fields, name);
    return value ? std::optional<std::string>(value) : std::nullopt;
}

// Of a target in absolute form: "http://HOST:PORT/...". Its port is left to the Host field.
std::string AuthorityOf(const evhttp_uri* uri)
{
    const char* const host = uri ? evhttp_uri_get_host(uri) : nullptr;
    if (!host)
        return "";
    const int port = evhttp_uri_get_port(uri);
    return port < 0 ? host : std::string(host) + ":" + std::to_string(port);
}

void ReadHosts(evhttp_request* request, WebRequest& read)
{
    const evkeyvalq* const fields = evhttp_request_get_input_headers(request);
    for (const evkeyval* field = fields->tqh_first; field; field = field->next.tqe_next) {
        if (strcasecmp(field->key, "Host") == 0)
            read.hosts.emplace_back(field->value);
    }
    const std::string authority = AuthorityOf(evhttp_request_get_evhttp_uri(request));
    if (!authority.empty())
        read.hosts.push_back(authority);
}

std::string Body(evhttp_request* request)
{
    evbuffer* const input = evhttp_request_get_input_buffer(request);
    std::string body(evbuffer_get_length(input), '\0');
    (void)evbuffer_copyout(input, body.data(), body.size());
    return body;
}

} // namespace

WebReply JsonReply(int status, std::string text)
{
    WebReply reply;
    reply.status = status;
    reply.text = std::make_shared<const std::string>(std::move(text));
    return reply;
}

WebReply RefusalReply(const Refusal& refusal)
{
    const nlohmann::ordered_json object { { "error", refusal.error }, { "advice", refusal.advice } };
    return JsonReply(
        refusal.status, object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n");
}

WebRequest ReadRequest(evhttp_request* request)
{
    WebRequest read;
    const evkeyvalq* const fields = evhttp_request_get_input_headers(request);
    const evhttp_uri* const uri = evhttp_request_get_evhttp_uri(request);
    const char* const path = uri ? evhttp_uri_get_path(uri) : nullptr;
    const char* const query = uri ? evhttp_uri_get_query(uri) : nullptr;
    read.method = MethodOf(request);
    read.path = path ? path : "";
    read.query = query ? query : "";
    ReadHosts(request, read);
    read.origin = Field(fields, "Origin");
    read.fetchSite = Field(fields, "Sec-Fetch-Site");
    read.token = Field(fields, "X-Arqctl-Token");
    read.contentType = Field(fields, "Content-Type").value_or("");
    read.ifNoneMatch = Field(fields, "If-None-Match").value_or("");
    read.body = Body(request);
    return read;
}

void AddUsualFields(evhttp_request* request)
{
    evkeyvalq* const fields = evhttp_request_get_output_headers(request);
    (void)evhttp_add_header(fields, "Content-Security-Policy",
        "default-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'; object-src 'none'");
    (void)evhttp_add_header(fields, "X-Content-Type-Options", "nosniff");
    (void)evhttp_add_header(fields, "Referrer-Policy", "no-referrer");
    (void)evhttp_add_header(fields, "Cross-Origin-Resource-Policy", "same-origin");
}

void AddShared(evbuffer* buffer, std::shared_ptr<const std::string> text)
{
    const auto free = [](const void*, size_t, void* held) {
        delete static_cast<std::shared_ptr<const std::string>*>(held);
    };
    auto held = std::make_unique<std::shared_ptr<const std::string>>(std::move(text));
    const std::string& bytes = **held;
    if (evbuffer_add_reference(buffer, bytes.data(), bytes.size(), free, held.get()) == 0)
        (void)held.release();
}

void Send(evhttp_request* request, const WebReply& reply)
{
    evkeyvalq* const fields = evhttp_request_get_output_headers(request);
    AddUsualFields(request);
    if (reply.status != HTTP_NOTMODIFIED)
        (void)evhttp_add_header(fields, "Content-Type", std::string(reply.type).c_str());
    for (const auto& [name, value] : reply.fields)
        (void)evhttp_add_header(fields, name.c_str(), value.c_str());
    if (!evhttp_find_header(fields, "Cache-Control"))
        (void)evhttp_add_header(fields, "Cache-Control", "no-store");
    const EventPtr<evbuffer> body(evbuffer_new());
    if (reply.text)
        AddShared(body.get(), reply.text);
    else
        (void)evbuffer_add_reference(body.get(), reply.bytes.data(), reply.bytes.size(), nullptr, nullptr);
    evhttp_send_reply(request, reply.status, nullptr, body.get());
}

} // namespace arqctl
