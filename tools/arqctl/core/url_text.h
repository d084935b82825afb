#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace arqctl {

// The parts of a request's target (RFC 3986), as they came from a stranger.

// "a%2Fb" to "a/b". Empty optional: a '%' without two hex digits behind it, or a zero byte.
std::optional<std::string> PercentDecoded(std::string_view text);

// "/a/b%2Fc/" to {"a", "b/c", ""}. Each part is decoded after the split: a slash in a name is written %2F. Empty optional: the
// path does not begin with '/', a part cannot be decoded, or there are more than 8.
std::optional<std::vector<std::string>> PathParts(std::string_view path);

// The number behind `name` in "span=300&points=600", digits only; `otherwise` where the name is missing. Empty optional:
// something else stands there, or more than 9 digits.
std::optional<int> QueryNumber(std::string_view query, std::string_view name, int otherwise);

} // namespace arqctl
