#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string_view>

// A path that is built where it stands. Paths are made again at every poll, for the life of the process: one
// that had to be allocated would end the process in the moment when there is no memory.
class FilePath {
public:
    static constexpr size_t BYTES = 256; // with the terminating zero; what does not fit is cut off

    __attribute__((format(printf, 2, 3))) explicit FilePath(const char* format, ...)
    {
        va_list arguments;
        va_start(arguments, format);
        (void)vsnprintf(m_text, sizeof(m_text), format, arguments);
        va_end(arguments);
    }

    const char* c_str() const { return m_text; }
    // NOLINTNEXTLINE(google-explicit-constructor): a text wherever one is wanted
    operator std::string_view() const { return m_text; }
    friend bool operator==(const FilePath& path, std::string_view text) { return path.m_text == text; }

private:
    char m_text[BYTES] = "";
};
