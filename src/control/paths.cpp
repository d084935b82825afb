#include "control/paths.h"

namespace {

FilePath s_root("%s", "");

} // namespace

FilePath ControlSocketPath(int32_t instance)
{
    return FilePath("%s/dev/arq_tx_ctrl%d", s_root.c_str(), instance);
}

FilePath StatusSocketPath(int32_t instance)
{
    return FilePath("%s/dev/arq_tx_stat%d", s_root.c_str(), instance);
}

FilePath ImpairmentTogglePath(int32_t instance)
{
    return FilePath("%s/var/run/tx_proxy%d.imp", s_root.c_str(), instance);
}

FilePath ImpairmentSettingsPath(int32_t instance)
{
    return FilePath("%s/var/run/tx_proxy%d.imp.conf", s_root.c_str(), instance);
}

FilePath ClearRequestPath(int32_t instance)
{
    return FilePath("%s/var/run/tx_proxy%d.clear", s_root.c_str(), instance);
}

void SetPathRoot(const char* root)
{
    s_root = FilePath("%s", root != nullptr ? root : "");
}
