#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace arqctl {

// The interface by which this thread's network would send to an IPv4 address (machine's byte order), as the kernel
// answers (RFC 3549): "" where it has no route, empty where it cannot be asked.
std::optional<std::string> RouteInterface(uint32_t address);

} // namespace arqctl
