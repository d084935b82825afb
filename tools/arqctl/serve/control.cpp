#include "arqctl/serve/control.h"

#include <nlohmann/json.hpp>

#include "arqctl/core/web_checks.h"

namespace arqctl {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* ADDRESS_ADVICE = "send {\"address\":\"10.0.0.1\"}, an address or a host name";

std::string Line(const Json& object)
{
    return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::variant<Order, Refusal> AddOrder(const WebRequest& asked)
{
    const Json body = Json::parse(asked.body, nullptr, false);
    if (!body.is_object() || body.size() != 1 || !body.contains("address") || !body["address"].is_string())
        return Refusal { 400, "the body is not an object with an address", ADDRESS_ADVICE };
    const std::string who = body["address"].get<std::string>();
    if (!IsReceiverWord(who))
        return Refusal { 400, "the address is empty, too long or has blanks in it", ADDRESS_ADVICE };
    return Order { ReceiverAction::Add, who };
}

std::variant<Order, Refusal> DeleteOrder(const WebRoute& route)
{
    if (!IsReceiverWord(route.address))
        return Refusal { 400, "the address is empty, too long or has blanks in it",
            "end the path with /receivers/10.0.0.1" };
    return Order { ReceiverAction::Delete, route.address };
}

int StatusOfFailure(Failure failure)
{
    if (failure == Failure::NoAnswer)
        return 504;
    return failure == Failure::CutOff || failure == Failure::TooLong ? 502 : 503;
}

const char* ResultName(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Done:
        return "done";
    case Outcome::Already:
        return "already";
    case Outcome::Refused:
        return "refused";
    }
    return "";
}

// On a thread of the pool.
WebReply CarryOut(
    const Order& order, const std::string& socketPath, const std::string& shownPath, int64_t patienceUs)
{
    const ReceiverChangeResult change = ChangeReceiver(order.action, socketPath, order.who, patienceUs);
    if (change.failure != Failure::None) {
        return RefusalReply({ StatusOfFailure(change.failure), ProblemText(change.failure, shownPath),
            AdviceText(change.failure, shownPath) });
    }
    Json object { { "result", ResultName(change.outcome) },
        { "text", OutcomeText(order.action, order.who, change.outcome) } };
    const std::string advice = OutcomeAdvice(order.action, change.outcome);
    if (!advice.empty())
        object["advice"] = advice;
    return JsonReply(200, Line(object));
}

} // namespace

std::variant<Order, Refusal> ReadOrder(const WebRoute& route, const WebRequest& asked)
{
    if (route.resource == Resource::Receiver)
        return DeleteOrder(route);
    if (const auto refusal = CheckContentType(asked))
        return *refusal;
    return AddOrder(asked);
}

std::optional<Refusal> CheckChange(const HostList& hosts, std::string_view token, const WebRequest& asked)
{
    if (token.empty())
        return CheckToken(token, asked);
    if (const auto refusal = CheckOrigin(hosts, asked))
        return refusal;
    return CheckToken(token, asked);
}

Control::Control(event_base* base, HttpServer& http, Board& board, int64_t patienceUs)
    : m_http(http),
      m_board(board),
      m_patienceUs(patienceUs),
      m_jobs(base)
{
}

void Control::Handle(evhttp_request* request, const WebRoute& route, const WebRequest& asked)
{
    const Channel* const channel = m_board.Find(route.name);
    if (const auto refusal = CheckRoom(channel))
        return Send(request, RefusalReply(*refusal));
    const auto order = ReadOrder(route, asked);
    if (const auto* const refusal = std::get_if<Refusal>(&order))
        return Send(request, RefusalReply(*refusal));
    Start(request, *channel, std::get<Order>(order));
}

std::optional<Refusal> Control::CheckRoom(const Channel* channel) const
{
    if (!channel)
        return Refusal { 404, "there is no such channel", "/api/v1/channels lists those there are" };
    if (!channel->watched.reading.isUp) {
        return Refusal { 503,
            channel->watched.problem.empty() ? "the proxy has not answered yet" : channel->watched.problem,
            "try again when the channel is up" };
    }
    if (m_jobs.IsBusyWith(channel->watched.id))
        return Refusal { 409, "another change of this channel is under way", "try again when it has ended" };
    if (m_jobs.IsFull())
        return Refusal { 429, "too many changes are under way", "try again in some seconds" };
    return {};
}

void Control::Start(evhttp_request* request, const Channel& channel, const Order& order)
{
    m_http.Pause(request);
    const std::string id = channel.watched.id;
    const std::string socketPath = channel.watched.socketPath;
    const std::string shownPath = channel.watched.target.ControlPath();
    m_jobs.Start(
        id, [=, patienceUs = m_patienceUs] { return CarryOut(order, socketPath, shownPath, patienceUs); },
        [this, request, id, order](const WebReply& reply) { Finish(request, id, order, reply); });
}

void Control::Finish(
    evhttp_request* request, const std::string& id, const Order& order, const WebReply& reply)
{
    Channel* const channel = m_board.Find(id);
    if (channel && order.action == ReceiverAction::Delete && reply.status == 200)
        channel->receivers.Forget(order.who);
    m_http.HoldOpen(request, false);
    Send(request, reply);
}

} // namespace arqctl
