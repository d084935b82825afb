#pragma once

#include <cstdint>
#include <string>

// The files of one instance. Free functions; SetPathRoot is called before any thread runs.

std::string ControlSocketPath(int32_t instance); // "/dev/arq_tx_ctrl%d"
std::string StatusSocketPath(int32_t instance); // "/dev/arq_tx_stat%d"
std::string ImpairmentTogglePath(int32_t instance); // "/var/run/tx_proxy%d.imp"
std::string ImpairmentSettingsPath(int32_t instance); // "/var/run/tx_proxy%d.imp.conf"
std::string ClearRequestPath(int32_t instance); // "/var/run/tx_proxy%d.clear"

// Puts all of them below another folder; null or "" for "/". For tests.
void SetPathRoot(const char* root);
