#include "arqctl/serve/control_token.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "arqctl/core/web_checks.h"
#include "base/unique_fd.h"

namespace arqctl {

namespace {

// 128 bits as hex digits.
std::string RandomToken()
{
    unsigned char bytes[16] = {};
    if (getrandom(bytes, sizeof(bytes), 0) != static_cast<ssize_t>(sizeof(bytes)))
        return "";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

std::string TokenFolder()
{
    const char* const own = secure_getenv("XDG_RUNTIME_DIR");
    if (own && own[0] == '/')
        return own;
    return access("/run", W_OK) == 0 ? "/run" : "/tmp";
}

} // namespace

ControlToken::~ControlToken()
{
    if (m_bMade)
        (void)unlink(m_path.c_str());
}

bool ControlToken::Read(const std::string& path, std::string& problem)
{
    std::ifstream file(path);
    std::string line(300, '\0'); // longer than any token
    file.read(line.data(), static_cast<std::streamsize>(line.size()));
    line.resize(static_cast<size_t>(file.gcount()));
    line.resize(std::min(line.find_first_of("\r\n"), line.size()));
    if (line.empty()) {
        problem = "no token could be read from " + path;
        return false;
    }
    if (!IsGoodToken(line)) {
        problem = "the token of " + path + " is not 16 to 256 letters, digits and signs without blanks";
        return false;
    }
    m_text = line;
    m_path = path;
    return true;
}

bool ControlToken::Make(std::string& problem)
{
    const std::string token = RandomToken();
    std::string path = TokenFolder() + "/arqctl-token-XXXXXX";
    const UniqueFd file(mkostemp(path.data(), O_CLOEXEC)); // 0600
    const std::string line = token + "\n";
    if (token.empty() || !file.IsValid()
        || write(file.Get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        problem = "cannot write a token to " + path + ": " + strerror(errno);
        return false;
    }
    m_text = token;
    m_path = path;
    m_bMade = true;
    return true;
}

} // namespace arqctl
