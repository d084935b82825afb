#include "arqctl/serve/control.h"

#include "arqctl/core/web_checks.h"
#include "common/clock.h"

namespace arqctl {

namespace {

// What everyone is shown of it from now on.
void Note(Channel& channel, const Order& order, const std::string& answer)
{
    const bool isSo = answer.find("\"result\":\"refused\"") == std::string::npos;
    if (order.impair && isSo)
        channel.loss.Set(order.impair->isOn, common::NowUs());
    if (!order.impair && order.action == ReceiverAction::Delete)
        channel.receivers.Forget(order.who);
}

} // namespace

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
    const OrderPlace place { channel.watched.target, channel.watched.socketPath, m_patienceUs,
        &m_jobs.IsEnding() };
    m_jobs.Start(
        id, [order, place] { return CarryOut(order, place); },
        [this, request, id, order](const WebReply& reply) { Finish(request, id, order, reply); });
}

void Control::Finish(
    evhttp_request* request, const std::string& id, const Order& order, const WebReply& reply)
{
    Channel* const channel = m_board.Find(id);
    if (channel && reply.status == 200)
        Note(*channel, order, *reply.text);
    m_http.HoldOpen(request, false);
    Send(request, reply);
}

} // namespace arqctl
