#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "arqctl/core/ssh_texts.h"
#include "arqctl/proxy/child_process.h"
#include "arqctl/proxy/exchange.h"
#include "arqctl/proxy/private_folder.h"

namespace arqctl {

// The `ssh -N -L` of one host; see Tunnels.
class HostTunnel {
public:
    explicit HostTunnel(std::string host);

    const std::string& Host() const { return m_host; }
    // The local end of the way to a socket there.
    std::string LocalPath(const std::string& remotePath);

    // Starts ssh if it does not run.
    void Start();
    // Takes what ssh has said, and its end.
    void Look();
    bool IsRunning() const { return m_isRunning; }
    bool IsUp() const { return m_isRunning && m_isUp; }
    // The way never came to stand in time.
    void GiveUp();
    // Its sshd logs in and forwards nothing. Ends it.
    void Refuse();
    // Of the last start that came to an end; None before.
    Failure LastFailure() const { return m_failure; }
    const Trouble& LastTrouble() const { return m_trouble; }
    // True once for each time that ssh has said that it got no connection over there.
    bool TakeRefusal();

    int64_t retryUs = 0; // not started before, by Tunnels::Proceed

private:
    std::vector<std::string> Words() const;
    void Fail(Failure failure, Trouble trouble);
    void TakeLine(std::string_view line);

    const std::string m_host;
    PrivateFolder m_folder;
    std::vector<std::string> m_remotePaths; // the local ends are numbered as they are
    ChildProcess m_ssh;
    std::string m_line; // of ssh's standard error, not at its end yet
    std::string m_said; // the last lines of it
    Failure m_failure = Failure::None;
    Trouble m_trouble;
    bool m_isRunning = false;
    bool m_isUp = false;
    int m_nRefusals = 0; // not taken yet
};

} // namespace arqctl
