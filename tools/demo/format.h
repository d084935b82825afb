#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace demo {

// printf into a string of whatever length.
[[gnu::format(printf, 1, 2)]] std::string Format(const char* format, ...);

// What the system says about an error number.
std::string ErrorText(int number);

// For %llu, the same on every machine.
constexpr unsigned long long Whole(uint64_t number)
{
    return number;
}

// Shorter pieces at blanks; a word longer than the width is cut.
std::vector<std::string> Wrap(std::string_view text, size_t width);

} // namespace demo
