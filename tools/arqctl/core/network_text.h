#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "arqctl/core/doctor_facts.h"

namespace arqctl {

// Reads texts of /proc that tell of a network and of a process's rights.

// A group that is joined on an interface.
struct Membership {
    std::string interface;
    uint32_t group = 0; // machine's byte order
};

// /proc/net/igmp.
std::vector<Membership> ReadMemberships(std::string_view text);

// Of /proc/net/route: the interface of the default route with the lowest metric, "" without one.
std::string ReadDefaultInterface(std::string_view text);

// Of /proc/net/netstat or snmp: a counter by its group and name ("TcpExt", "IPReversePathFilter"). Empty where it is not kept.
std::optional<uint64_t> ReadCounter(std::string_view text, std::string_view group, std::string_view name);

// "32768\t60999\n", as ip_local_port_range has it.
std::optional<PortRange> ReadPortRange(std::string_view text);

// "100,200-210\n", as ip_local_reserved_ports has it.
std::vector<PortRange> ReadReservedPorts(std::string_view text);

// A file that holds nothing but a number.
std::optional<uint64_t> ReadCount(std::string_view text);

// /proc/PID/status: as whom it acts on files, its groups and rights.
std::optional<UserFacts> ReadUser(std::string_view text);

// The state letter of /proc/PID/stat; 0 where there is none.
char ReadState(std::string_view text);

// Of /proc/PID/limits: the limit of open files that holds now.
std::optional<uint64_t> ReadFileLimit(std::string_view text);

} // namespace arqctl
