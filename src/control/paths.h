#pragma once

#include <cstdint>

#include "base/file_path.h"

// The files of one instance. Free functions; SetPathRoot is called before any thread runs.

FilePath ControlSocketPath(int32_t instance); // "/dev/arq_tx_ctrl%d"
FilePath StatusSocketPath(int32_t instance); // "/dev/arq_tx_stat%d"
FilePath ImpairmentTogglePath(int32_t instance); // "/var/run/tx_proxy%d.imp"
FilePath ImpairmentSettingsPath(int32_t instance); // "/var/run/tx_proxy%d.imp.conf"
FilePath ClearRequestPath(int32_t instance); // "/var/run/tx_proxy%d.clear"

// Puts all of them below another folder; null or "" for "/". For tests.
void SetPathRoot(const char* root);
