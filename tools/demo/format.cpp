#include "demo/format.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace demo {

std::string Format(const char* format, ...)
{
    va_list arguments, again;
    va_start(arguments, format);
    va_copy(again, arguments);
    const int size = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(size > 0 ? static_cast<size_t>(size) : 0, '\0');
    (void)std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

std::string ErrorText(int number)
{
    const char* const text = strerrordesc_np(number);
    return text != nullptr ? text : Format("error %d", number);
}

std::vector<std::string> Wrap(std::string_view text, size_t width)
{
    std::vector<std::string> lines;
    while (text.size() > width) {
        const size_t blank = text.rfind(' ', width);
        const bool hasBlank = blank != std::string_view::npos && blank > 0;
        lines.emplace_back(text.substr(0, hasBlank ? blank : width));
        text.remove_prefix(hasBlank ? blank + 1 : width);
    }
    lines.emplace_back(text);
    return lines;
}

} // namespace demo
