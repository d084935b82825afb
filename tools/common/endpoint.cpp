#include "common/endpoint.h"

#include <arpa/inet.h>
#include <charconv>
#include <netdb.h>
#include <sys/socket.h>
#include <system_error>

namespace common {

namespace {

template <typename Number>
bool ParseDigits(std::string_view text, Number& number)
{
    Number value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end)
        return false;
    number = value;
    return true;
}

// Host and port of "HOST:PORT"; the last colon separates them.
bool Split(std::string_view text, std::string_view& host, uint16_t& port)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos || !ParsePort(text.substr(colon + 1), port))
        return false;
    host = text.substr(0, colon);
    return true;
}

bool ParseHost(std::string_view host, uint32_t& address)
{
    if (host.empty() || host == "*") {
        address = 0;
        return true;
    }
    return ParseAddress(host, address);
}

bool LookUpHost(const std::string& host, uint32_t& address, std::string& problem)
{
    addrinfo hints {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    const int status = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (status != 0 || !found) {
        problem = "host '" + host + "' is unknown: " + gai_strerror(status);
        return false;
    }
    const void* first = found->ai_addr; // of the family that was asked for
    address = FromSockaddr(*static_cast<const sockaddr_in*>(first)).address;
    freeaddrinfo(found);
    return true;
}

} // namespace

bool ParseAddress(std::string_view text, uint32_t& address)
{
    const std::string copy(text);
    in_addr parsed {};
    if (copy.find('\0') != std::string::npos || inet_pton(AF_INET, copy.c_str(), &parsed) != 1)
        return false;
    address = ntohl(parsed.s_addr);
    return true;
}

bool ParsePort(std::string_view text, uint16_t& port)
{
    return ParseDigits(text, port);
}

bool ParseEndpoint(std::string_view text, Endpoint& endpoint)
{
    std::string_view host;
    Endpoint parsed;
    if (!Split(text, host, parsed.port) || !ParseHost(host, parsed.address))
        return false;
    endpoint = parsed;
    return true;
}

bool LookUpEndpoint(std::string_view text, Endpoint& endpoint, std::string& problem)
{
    if (ParseEndpoint(text, endpoint))
        return true;
    std::string_view host;
    Endpoint parsed;
    if (!Split(text, host, parsed.port) || host.find('\0') != std::string_view::npos) {
        problem = "'" + std::string(text) + "' is not HOST:PORT";
        return false;
    }
    if (!LookUpHost(std::string(host), parsed.address, problem))
        return false;
    endpoint = parsed;
    return true;
}

std::string AddressText(uint32_t address)
{
    char text[INET_ADDRSTRLEN] = "";
    const in_addr net { htonl(address) };
    (void)inet_ntop(AF_INET, &net, text, sizeof(text)); // the room is what every address needs
    return text;
}

std::string EndpointText(const Endpoint& endpoint)
{
    return AddressText(endpoint.address) + ":" + std::to_string(endpoint.port);
}

sockaddr_in ToSockaddr(const Endpoint& endpoint)
{
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(endpoint.address);
    address.sin_port = htons(endpoint.port);
    return address;
}

Endpoint FromSockaddr(const sockaddr_in& address)
{
    return { ntohl(address.sin_addr.s_addr), ntohs(address.sin_port) };
}

} // namespace common
