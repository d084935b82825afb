#include "arqlink/relay/source_pool.h"

#include "common/endpoint.h"

#include <charconv>

namespace arqlink {

namespace {

constexpr int SHORTEST_PREFIX = 8;
constexpr int LONGEST_PREFIX = 30; // of four addresses two are left

bool ParsePrefix(std::string_view text, int& prefix)
{
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, prefix);
    return error == std::errc() && stop == end && prefix >= SHORTEST_PREFIX && prefix <= LONGEST_PREFIX;
}

} // namespace

bool SourcePool::Parse(std::string_view text, std::string& problem)
{
    const size_t slash = text.find('/');
    uint32_t network = 0;
    int prefix = 0;
    if (slash == std::string_view::npos || !common::ParseAddress(text.substr(0, slash), network)
        || !ParsePrefix(text.substr(slash + 1), prefix)) {
        problem = "'" + std::string(text) + "' is not a range of addresses such as 127.9.0.0/24 (/8 to /30)";
        return false;
    }
    const uint32_t size = uint32_t { 1 } << (32 - prefix);
    if ((network & (size - 1)) != 0) {
        problem = "'" + std::string(text) + "' does not begin a range; write "
            + common::AddressText(network & ~(size - 1)) + std::string(text.substr(slash));
        return false;
    }
    m_nFirst = network + 1;
    m_nCount = size - 2;
    return true;
}

bool SourcePool::Take(uint32_t& address)
{
    address = m_nFirst;
    if (m_nCount == 0)
        return true;
    for (const uint32_t taken : m_taken) { // in order: the first gap is free
        if (taken != address)
            break;
        address++;
    }
    return address - m_nFirst < m_nCount && m_taken.insert(address).second;
}

} // namespace arqlink
