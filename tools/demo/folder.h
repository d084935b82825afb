#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "base/unique_fd.h"

namespace demo {

// The folder for what the run leaves. Opened before the sandbox changes what paths mean.
class Folder {
public:
    // Makes it if there is none; its parent has to be there. False: errno says why.
    bool Open(const std::string& path);
    // Writes the whole file or, on failure, removes what there is of it.
    bool Write(const std::string& name, std::span<const uint8_t> bytes) const;
    bool Write(const std::string& name, const std::string& text) const;
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
    UniqueFd m_fd;
};

} // namespace demo
