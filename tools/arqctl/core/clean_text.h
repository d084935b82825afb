#pragma once

#include <string>
#include <string_view>

namespace arqctl {

// A stranger's text as it may be shown: printable UTF-8 (RFC 3629) of at most `longest` bytes, cut between characters.
// Control characters, line separators, marks that turn the direction of writing and bytes that are no UTF-8 become '?'.
std::string CleanText(std::string_view text, size_t longest);

} // namespace arqctl
