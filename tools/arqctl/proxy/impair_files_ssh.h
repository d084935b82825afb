#pragma once

#include <string>
#include <vector>

#include "arqctl/proxy/child_process.h"
#include "arqctl/proxy/impair_files.h"
#include "arqctl/proxy/ssh.h"

namespace arqctl {

// Those of a proxy of another machine, through a shell there. The lock is a flock(1) over there, held by an ssh of its own.
class SshImpairFiles : public ImpairFiles {
public:
    // `folder`: where they are over there, with a slash.
    SshImpairFiles(std::string host, const std::string& folder, int instance);

    Trouble Lock(int64_t patienceUs) override;
    Trouble AwaitNoToggle(int64_t patienceUs) override;
    Trouble ReadSettings(std::string& text) override;
    Trouble WriteSettings(const std::string& text) override;
    Toggled Toggle(int64_t patienceUs, Trouble& trouble) override;

private:
    RemoteRun Run(const char* script, const std::string& input, int64_t patienceUs) const;
    Trouble TroubleOf(const RemoteRun& run) const;

    const std::string m_host;
    const std::string m_path; // of the toggle
    ChildProcess m_lock;
};

} // namespace arqctl
