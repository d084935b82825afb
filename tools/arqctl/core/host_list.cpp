#include "arqctl/core/host_list.h"

#include <algorithm>

namespace arqctl {

namespace {

constexpr uint16_t USUAL_PORT = 80; // of http, left out by browsers

std::string SmallLetters(std::string_view text)
{
    std::string small(text);
    for (char& letter : small) {
        if (letter >= 'A' && letter <= 'Z')
            letter = static_cast<char>(letter - 'A' + 'a');
    }
    return small;
}

// "name:80" and "[::1]:80", not "name" and "[::1]".
bool HasPort(std::string_view host)
{
    const size_t colon = host.rfind(':');
    return colon != std::string_view::npos && host.find(']', colon) == std::string_view::npos;
}

} // namespace

HostList::HostList(const std::string& listenAddress, uint16_t port) : m_usPort(port)
{
    for (const std::string& address :
        { listenAddress, std::string("127.0.0.1"), std::string("localhost"), std::string("[::1]") }) {
        m_hosts.push_back(SmallLetters(address) + ":" + std::to_string(port));
        if (port == USUAL_PORT)
            m_hosts.push_back(SmallLetters(address));
    }
}

bool HostList::IsHost(std::string_view name)
{
    constexpr std::string_view HOST_LETTERS
        = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.:[]";
    return !name.empty() && name.find_first_not_of(HOST_LETTERS) == std::string_view::npos;
}

void HostList::Allow(std::string_view name)
{
    const std::string host = SmallLetters(name);
    m_hosts.push_back(host);
    if (!HasPort(host))
        m_hosts.push_back(host + ":" + std::to_string(m_usPort));
}

bool HostList::Allows(std::string_view host) const
{
    return !host.empty() && std::find(m_hosts.begin(), m_hosts.end(), SmallLetters(host)) != m_hosts.end();
}

bool HostList::AllowsOrigin(std::string_view origin) const
{
    for (const std::string_view scheme : { "http://", "https://" }) {
        if (origin.starts_with(scheme))
            return Allows(origin.substr(scheme.size()));
    }
    return false;
}

} // namespace arqctl
