#pragma once

#include <string>

#include "base/unique_fd.h"

namespace arqctl {

// A new folder below TMPDIR (else /tmp) that only this user may enter: "/tmp/arqctl-aB3dEf". It goes with this object,
// files included. What a killed program left behind goes with the next one that makes such a folder: whoever is alive
// holds a lock on its own. Threads: one thread's own.
class PrivateFolder {
public:
    PrivateFolder() = default;
    ~PrivateFolder() { Remove(); }
    PrivateFolder(const PrivateFolder&) = delete;
    PrivateFolder& operator=(const PrivateFolder&) = delete;

    // Makes it, unless there is one. 0, or an errno.
    int Make();
    // "" without one.
    const std::string& Path() const { return m_path; }

private:
    void Remove();

    std::string m_path;
    UniqueFd m_lock;
};

} // namespace arqctl
