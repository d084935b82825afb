#include "arqrx/program/proxy_address.h"

#include <atomic>
#include <thread>

#include "common/endpoint.h"

namespace arqrx {

struct ProxyAddress::Search {
    std::string host;
    uint32_t address = 0; // 0: not found. Written before isDone is
    std::atomic<bool> isDone { false };
};

namespace {

bool Find(const std::string& host, uint32_t& address, std::string& problem)
{
    common::Endpoint found;
    if (!common::LookUpEndpoint(host + ":1", found, problem)) // any port: the address counts
        return false;
    address = found.address;
    return true;
}

} // namespace

bool ProxyAddress::LookUp(const std::string& host, std::string& problem)
{
    m_host = host;
    return Find(host, m_address, problem);
}

void ProxyAddress::LookUpAgain()
{
    uint32_t ignored = 0;
    if (m_search || common::ParseAddress(m_host, ignored))
        return;
    m_search = std::make_shared<Search>();
    m_search->host = m_host;
    // Left alone: a name server that does not answer must not hold up the end of the program.
    std::thread([search = m_search] {
        std::string problem;
        (void)Find(search->host, search->address, problem);
        search->isDone.store(true, std::memory_order_release);
    }).detach();
}

bool ProxyAddress::HasMoved()
{
    if (!m_search || !m_search->isDone.load(std::memory_order_acquire))
        return false;
    const uint32_t found = m_search->address;
    m_search.reset();
    if (found == 0 || found == m_address)
        return false;
    m_address = found;
    return true;
}

} // namespace arqrx
