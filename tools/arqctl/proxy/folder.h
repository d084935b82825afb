#pragma once

#include <optional>
#include <string>
#include <vector>

namespace arqctl {

// Names of what is in a folder; none where it may not be looked at.
std::vector<std::string> NamesIn(const std::string& folder);

// Where a link points to; empty where there is none, or it may not be looked at.
std::optional<std::string> LinkText(const std::string& path);

// Whether both lead to one and the same thing. False where that is not to be seen.
bool IsSameFile(const std::string& one, const std::string& other);

} // namespace arqctl
