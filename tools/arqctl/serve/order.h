#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "arqctl/core/receiver_outcome.h"
#include "arqctl/core/web_route.h"
#include "arqctl/proxy/impair_switch.h"
#include "arqctl/proxy/target.h"
#include "arqctl/serve/web_reply.h"

namespace arqctl {

// What a request wants changed of a channel.
struct Order {
    std::optional<ImpairOrder> impair; // deliberate loss; or
    ReceiverAction action = ReceiverAction::Add; // a receiver
    std::string who;
};

// The order in a request's path and body, or why there is none (400, 415).
std::variant<Order, Refusal> ReadOrder(const WebRoute& route, const WebRequest& asked);

// Where it is carried out.
struct OrderPlace {
    Target target;
    std::string socketPath; // on this machine
    int64_t patienceUs = 0; // for each answer of the proxy
    const std::atomic<bool>* stop = nullptr; // set: watch the proxy no longer
};

// What became of it. Waits for the proxy: some seconds, for a thread of its own.
WebReply CarryOut(const Order& order, const OrderPlace& place);

} // namespace arqctl
