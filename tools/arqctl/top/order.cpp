#include "arqctl/top/order.h"

#include <fmt/format.h>

namespace arqctl::top {

std::string QuestionText(const Order& order, int mediaPort)
{
    switch (order.kind) {
    case Order::Kind::Add:
        return fmt::format(
            "Add {} to proxy {}? It is sent every packet from now on{}, whether somebody receives there or "
            "not.",
            order.who, order.proxy, mediaPort == 0 ? "" : fmt::format(" to UDP port {}", mediaPort));
    case Order::Kind::Delete:
        return fmt::format(
            "Delete {} from proxy {}? It is told to stop and is sent nothing more; a receiver that pings on "
            "comes back.",
            order.who, order.proxy);
    case Order::Kind::ImpairOn:
        return fmt::format(
            "Switch deliberate loss of proxy {} ON? It withholds packets from all receivers, 1 of 101 by "
            "default or as its settings file says, until it is switched off.",
            order.proxy);
    case Order::Kind::ImpairOff:
        return fmt::format(
            "Switch deliberate loss of proxy {} OFF? All packets are sent again.", order.proxy);
    case Order::Kind::Reset:
        return fmt::format(
            "Set the statistics of proxy {} to 0? Its counts begin anew for everybody who reads them; stream "
            "and receivers stay as they are.",
            order.proxy);
    }
    return "";
}

std::string UnderWayText(const Order& order)
{
    switch (order.kind) {
    case Order::Kind::Add:
        return fmt::format("adding {} to proxy {} ...", order.who, order.proxy);
    case Order::Kind::Delete:
        return fmt::format("deleting {} from proxy {} ...", order.who, order.proxy);
    case Order::Kind::ImpairOn:
        return fmt::format("switching deliberate loss of proxy {} on ...", order.proxy);
    case Order::Kind::ImpairOff:
        return fmt::format("switching deliberate loss of proxy {} off ...", order.proxy);
    case Order::Kind::Reset:
        return fmt::format("setting the statistics of proxy {} to 0 ...", order.proxy);
    }
    return "";
}

} // namespace arqctl::top
