#include "control/paths.h"

namespace {

std::string s_root; // NOLINT(cert-err58-cpp): an empty string cannot fail

} // namespace

std::string ControlSocketPath(int32_t instance)
{
    return s_root + "/dev/arq_tx_ctrl" + std::to_string(instance);
}

std::string StatusSocketPath(int32_t instance)
{
    return s_root + "/dev/arq_tx_stat" + std::to_string(instance);
}

std::string ImpairmentTogglePath(int32_t instance)
{
    return s_root + "/var/run/tx_proxy" + std::to_string(instance) + ".imp";
}

std::string ImpairmentSettingsPath(int32_t instance)
{
    return s_root + "/var/run/tx_proxy" + std::to_string(instance) + ".imp.conf";
}

std::string ClearRequestPath(int32_t instance)
{
    return s_root + "/var/run/tx_proxy" + std::to_string(instance) + ".clear";
}

void SetPathRoot(const char* root)
{
    s_root = root != nullptr ? root : "";
}
