#pragma once

#include <string>

// A folder that goes away, with what is in it, at the end of the object's life.
class ScratchFolder {
public:
    // In TMPDIR or /tmp. Gives up when it cannot be made.
    ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder();

    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};
