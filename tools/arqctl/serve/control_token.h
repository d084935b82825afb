#pragma once

#include <string>

namespace arqctl {

// The word that whoever changes something through the page has to know. One that was made for this run is in a file that
// only this user can read, and the file goes with the object.
class ControlToken {
public:
    ControlToken() = default;
    ~ControlToken();
    ControlToken(const ControlToken&) = delete;
    ControlToken& operator=(const ControlToken&) = delete;

    // The first line of the file. False with what is wrong.
    bool Read(const std::string& path, std::string& problem);
    // Makes one, and its file in $XDG_RUNTIME_DIR, /run or /tmp.
    bool Make(std::string& problem);

    const std::string& Text() const { return m_text; } // "": none
    const std::string& Path() const { return m_path; }

private:
    std::string m_text;
    std::string m_path;
    bool m_bMade = false;
};

} // namespace arqctl
