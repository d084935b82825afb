#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "arqctl/core/ssh_texts.h"
#include "arqctl/proxy/exchange.h"

namespace arqctl {

// The environment's ARQCTL_SSH, "ssh -p 2222 -i KEY" say, and behind it what each of our calls needs: nothing is asked,
// nothing is shared with a master connection, and the login may take SSH_CONNECT_SECONDS.
std::vector<std::string> SshWords();
constexpr int SSH_CONNECT_SECONDS = 10;

// Why `words[0]` could not be started.
Trouble StartTrouble(int error);

// What a command on another machine gave.
struct RemoteRun {
    Failure failure = Failure::None; // None: it ran, and `status` is its own
    Trouble trouble; // with a failure
    int status = -1; // 127: the other machine's shell found no such command
    std::string output; // at most LONGEST_REMOTE_OUTPUT bytes
    std::string errors;

    bool HasRun() const { return failure == Failure::None; }
};

constexpr size_t LONGEST_REMOTE_OUTPUT = 1'000'000;

// Runs a command on `host`, its words as they are (they are quoted for the shell there), with `input` on its standard
// input, and waits for its end, `patienceUs` at most besides the login. Also with a failure it may have been carried out.
RemoteRun RunRemote(const std::string& host, const std::vector<std::string>& words, const std::string& input,
    int64_t patienceUs);

} // namespace arqctl
