#include "arqctl/core/reply.h"

#include <charconv>
#include <utility>

#include "common/endpoint.h"

namespace arqctl {

namespace {

// Takes "NAME=NUMBER" and the line feed behind it off the front of the text.
template <typename Number>
bool TakeNumber(std::string_view& text, std::string_view name, Number& value)
{
    if (!text.starts_with(name) || text.substr(name.size(), 1) != "=")
        return false;
    const std::string_view rest = text.substr(name.size() + 1);
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), value);
    const auto length = static_cast<size_t>(end - rest.data());
    if (error != std::errc {} || rest.substr(length, 1) != "\n")
        return false;
    text = rest.substr(length + 1);
    return true;
}

bool TakeWord(std::string_view& text, std::string_view name, uint32_t& value)
{
    int32_t printed = 0;
    if (!TakeNumber(text, name, printed))
        return false;
    value = static_cast<uint32_t>(printed);
    return true;
}

} // namespace

bool ParseStatistics(std::string_view reply, Statistics& statistics)
{
    constexpr std::string_view RECEIVERS = "CLIENTS=";
    Statistics read;
    const bool isWhole = TakeNumber(reply, "RECV_PACKETS", read.receivedPackets)
        && TakeWord(reply, "RECV_BITRATE", read.receivedBitRate)
        && TakeWord(reply, "RECV_LOSS", read.receivedLoss)
        && TakeNumber(reply, "SEND_PACKETS", read.sentPackets)
        && TakeWord(reply, "SEND_BITRATE", read.sentBitRate) && reply.starts_with(RECEIVERS)
        && ParseReceivers(reply.substr(RECEIVERS.size()), read.receivers);
    if (isWhole)
        statistics = std::move(read);
    return isWhole;
}

bool ParseReceivers(std::string_view reply, std::vector<std::string>& receivers)
{
    std::vector<std::string> read;
    while (!reply.empty()) {
        const size_t comma = reply.find(',');
        const std::string_view address = reply.substr(0, comma);
        uint32_t number = 0;
        if (!common::ParseAddress(address, number))
            return false;
        read.emplace_back(address);
        if (comma == reply.size() - 1)
            return false; // ends with a comma: cut off
        reply = comma == std::string_view::npos ? std::string_view() : reply.substr(comma + 1);
    }
    receivers = std::move(read);
    return true;
}

} // namespace arqctl
