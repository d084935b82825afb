#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace arqctl {

// Where proxies have their files. A proxy makes its control socket in /dev and looks for the switch of its deliberate loss
// in /var/run. The unit tx_proxy-private@N gives it folders of its own instead, which stand in /run/tx_proxy-N.

// "/dev/arq_tx_ctrl2"
std::string UsualControlPath(int instance);

// "/run/tx_proxy-2/dev/arq_tx_ctrl2", which is there only while the unit runs.
std::string PrivateControlPath(int instance);

// The one of the two that is to be used now: the private one where it is, also without the right to look at it. The other
// one may have been left behind by a proxy that has ended.
std::string ControlPathHere(int instance);

// As this program reaches the control socket of a running proxy: through the process where its /dev is neither ours nor
// one of the folders above.
std::string ControlPathOfProcess(int pid, int instance);

// Instances whose unit tx_proxy-private@ runs; in no order.
std::vector<int> PrivateInstances();

// The number in the name of a control socket, wherever it is.
std::optional<int> InstanceInPath(std::string_view controlPath);

// The folder of the proxy's files of deliberate loss, with a slash: "/var/run/", or the run folder beside its own /dev.
std::string RunFolderOf(std::string_view controlPath);

// Whether the file is a socket.
bool IsSocket(const std::string& path);

// The same, or that is not to be seen: its folder may not be entered.
bool MayBeSocket(const std::string& path);

} // namespace arqctl
