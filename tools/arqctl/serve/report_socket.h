#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "arqctl/serve/http_server.h"
#include "base/unique_fd.h"
#include "common/endpoint.h"

namespace arqctl {

// The UDP socket that receivers send their reports to. Threads: the event loop's own.
class ReportSocket {
public:
    // A datagram, whatever a stranger put into it, and where it came from.
    using Handler = std::function<void(std::string_view datagram, const common::Endpoint& source)>;

    ReportSocket(event_base* base, Handler handler) : m_pBase(base), m_handler(std::move(handler)) {}

    // "ADDRESS:PORT" or "*:PORT" (IPv4).
    static bool IsAddress(const std::string& addressAndPort);
    // False with the reason as a sentence.
    bool Open(const std::string& addressAndPort, std::string& problem);

private:
    static constexpr size_t LONGEST_DATAGRAM = 2048; // what is longer arrives cut, and is no report
    static constexpr int MOST_TOGETHER = 64; // then the loop serves others first

    static void Readable(int fd, short what, void* self);
    bool ReadOne();

    event_base* m_pBase;
    const Handler m_handler;
    UniqueFd m_fd;
    EventPtr<event> m_event;
};

} // namespace arqctl
