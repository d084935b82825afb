#pragma once

#include <map>
#include <set>
#include <string>

#include "arqctl/core/doctor_facts.h"

namespace arqctl {

// Who holds which socket, by inode: process number and name. Of processes that may not be looked at nothing is found.
struct SocketHolder {
    int pid = 0;
    std::string name;
};
std::map<uint64_t, SocketHolder> HoldersOf(const std::set<uint64_t>& inodes);

// The room that the kernel gives a socket of another process for what it has not read; bytes as SO_RCVBUF has them.
// Takes the right to trace it.
std::optional<uint64_t> ReceiveBufferOf(int pid, uint64_t inode);

} // namespace arqctl
