#pragma once

#include <cstdint>
#include <string>

namespace arqctl::top {

// Something to be done to a proxy, asked for and agreed to.
struct Order {
    enum class Kind : uint8_t { Add, Delete, ImpairOn, ImpairOff, Reset };

    Kind kind = Kind::Reset;
    std::string proxy; // ShownProxy::name
    std::string who; // with Add and Delete: the receiver

    bool operator==(const Order&) const = default;
};

// "Add 10.0.0.1 to proxy 1? ...": what exactly will happen. `mediaPort`: of the proxy, 0 when not known.
std::string QuestionText(const Order& order, int mediaPort);
// "adding 10.0.0.1 to proxy 1 ...": it is under way.
std::string UnderWayText(const Order& order);

} // namespace arqctl::top
