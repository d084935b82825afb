#include "arqctl/proxy/target.h"

#include <charconv>

#include "arqctl/core/ssh_texts.h"
#include "arqctl/proxy/control_path.h"

namespace arqctl {

namespace {

// The proxy reads its own instance number as a whole signed word.
bool ParseInstance(std::string_view text, int& instance)
{
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc {} || end != text.data() + text.size())
        return false;
    instance = value;
    return true;
}

} // namespace

std::string Target::ControlPath() const
{
    if (!socketPath.empty())
        return socketPath;
    return IsRemote() ? UsualControlPath(instance) : ControlPathHere(instance);
}

std::string Target::Name() const
{
    const std::string own = socketPath.empty() ? std::to_string(instance) : socketPath;
    return via.empty() ? own : via + "/" + own;
}

bool ParseTarget(std::string_view text, Target& target)
{
    constexpr std::string_view SSH = "ssh:";
    Target read;
    if (text.starts_with(SSH)) {
        text.remove_prefix(SSH.size());
        const size_t slash = text.find('/');
        if (slash == std::string_view::npos || !IsSshHost(text.substr(0, slash)))
            return false;
        read.via = text.substr(0, slash);
        text.remove_prefix(slash + 1);
    } else if (text.starts_with('/') && text.size() > 1) {
        read.instance = 0;
        read.socketPath = text;
        target = read;
        return true;
    }
    if (!ParseInstance(text, read.instance))
        return false;
    target = read;
    return true;
}

} // namespace arqctl
