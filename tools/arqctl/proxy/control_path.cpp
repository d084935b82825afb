#include "arqctl/proxy/control_path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "arqctl/core/fields.h"
#include "arqctl/proxy/folder.h"
#include "arqctl/proxy/other_network.h"

namespace arqctl {

namespace {

constexpr std::string_view CONTROL_NAME = "/dev/arq_tx_ctrl";
constexpr std::string_view UNIT_FOLDER = "tx_proxy-"; // in /run

} // namespace

std::string UsualControlPath(int instance)
{
    return std::string(CONTROL_NAME) + std::to_string(instance);
}

std::string PrivateControlPath(int instance)
{
    return "/run/" + std::string(UNIT_FOLDER) + std::to_string(instance) + UsualControlPath(instance);
}

std::string ControlPathHere(int instance)
{
    std::string path = PrivateControlPath(instance);
    return MayBeSocket(path) ? path : UsualControlPath(instance);
}

std::string ControlPathOfProcess(int pid, int instance)
{
    const std::string root = "/proc/" + std::to_string(pid) + "/root";
    if (SharesDevices(pid) || access((root + "/dev").c_str(), F_OK) != 0)
        return UsualControlPath(instance);
    std::string path = PrivateControlPath(instance);
    return IsSameFile(root + "/dev", path.substr(0, path.rfind('/'))) ? path
                                                                      : root + UsualControlPath(instance);
}

std::vector<int> PrivateInstances()
{
    std::vector<int> numbers;
    for (const std::string& entry : NamesIn("/run")) {
        const std::string_view name = entry;
        int number = 0;
        if (name.starts_with(UNIT_FOLDER) && ReadWhole(name.substr(UNIT_FOLDER.size()), number)
            && MayBeSocket(PrivateControlPath(number)))
            numbers.push_back(number);
    }
    return numbers;
}

std::optional<int> InstanceInPath(std::string_view controlPath)
{
    const size_t at = controlPath.rfind(CONTROL_NAME);
    int number = 0;
    if (at == std::string_view::npos || !ReadWhole(controlPath.substr(at + CONTROL_NAME.size()), number))
        return std::nullopt;
    return number;
}

std::string RunFolderOf(std::string_view controlPath)
{
    const size_t at = controlPath.rfind(CONTROL_NAME);
    if (at == 0 || at == std::string_view::npos)
        return "/var/run/";
    // Not its /var/run: where that is a link to /run, it would lead to ours.
    return std::string(controlPath.substr(0, at)) + "/run/";
}

bool IsSocket(const std::string& path)
{
    struct stat facts {};
    return stat(path.c_str(), &facts) == 0 && S_ISSOCK(facts.st_mode);
}

bool MayBeSocket(const std::string& path)
{
    struct stat facts {};
    return stat(path.c_str(), &facts) == 0 ? S_ISSOCK(facts.st_mode) : errno == EACCES;
}

} // namespace arqctl
