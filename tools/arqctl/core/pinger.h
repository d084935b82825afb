#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "common/endpoint.h"

namespace arqctl {

// Who has pinged: a receiver is known by its stream ID, or without one by its address.
struct Pinger {
    common::Endpoint from;
    common::Endpoint to;
    std::optional<uint32_t> streamId;

    bool operator==(const Pinger&) const = default;
    bool IsSameReceiver(const Pinger& other) const
    {
        return streamId == other.streamId && (streamId.has_value() || from.address == other.from.address);
    }
};

// What of a ping has to be kept: IPv4 header at its longest, UDP header, tag.
constexpr uint32_t PING_HEAD_BYTES = 60 + 8 + 8;

// From the head of an IPv4 packet that came to the ping port. Empty for what is no ping: a receiver that leaves, or media
// that came back to the proxy.
std::optional<Pinger> ReadPinger(std::span<const uint8_t> packet);

// The first two that are one receiver to the proxy and ping from different places; empty where there are none.
std::vector<Pinger> TwoOfOneReceiver(const std::vector<Pinger>& pingers);

} // namespace arqctl
