#pragma once

#include <string>
#include <vector>

namespace arqctl {

// A proxy's command line as a person would type it, the program's name without its folder first. Passwords (its -Z) are
// left out, and what no shell would take as it is stands in quotes. Without control characters.
std::string CommandText(const std::vector<std::string>& arguments);

} // namespace arqctl
