#include "control/config_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <new>

#include "base/unique_fd.h"

namespace {

// A file that is larger is no settings file: it would cost the control thread its
// time, and the machine its memory.
constexpr size_t MAX_FILE_BYTES = 1024UL * 1024;

bool IsSpace(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool IsLetter(char c)
{
    return std::isalpha(static_cast<unsigned char>(c)) != 0;
}

bool IsLetterOrDigit(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0;
}

// The text from its first character for which `isWanted` holds, or its empty end.
template <typename Predicate>
char* SkipTo(char* text, Predicate isWanted)
{
    while (*text != '\0' && !isWanted(*text))
        ++text;
    return text;
}

void EndAtSpace(char* text)
{
    *SkipTo(text, IsSpace) = '\0';
}

char* CutKey(char* text)
{
    char* key = SkipTo(text, IsLetter);
    EndAtSpace(key);
    return key;
}

// A closing quote is the last character but for white space; without one the rest of the line counts.
char* CutQuotedValue(char* value)
{
    char* end = value + std::strlen(value);
    while (end > value && IsSpace(end[-1]))
        --end;
    if (end > value && end[-1] == '"')
        end[-1] = '\0';
    return value;
}

char* CutValue(char* text)
{
    if (*text == '"')
        return CutQuotedValue(text + 1);
    char* value = SkipTo(text, IsLetterOrDigit);
    EndAtSpace(value);
    return value;
}

size_t ReadUpTo(int fd, char* buffer, size_t size)
{
    size_t total = 0;
    while (total < size) {
        const ssize_t count = read(fd, buffer + total, size - total);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        total += static_cast<size_t>(count);
    }
    return total;
}

// Lines that can hold a setting.
size_t CountSettings(const char* text)
{
    size_t count = 0;
    while (const char* sign = std::strchr(text, '=')) {
        ++count;
        const char* lineEnd = std::strchr(sign, '\n');
        if (lineEnd == nullptr)
            break;
        text = lineEnd;
    }
    return count;
}

} // namespace

int ConfigFile::Load(const char* path)
{
    Clear();
    struct stat status {};
    const int result = stat(path, &status);
    if (result != 0)
        return result;
    const auto size = static_cast<size_t>(status.st_size);
    if (size > MAX_FILE_BYTES || !Allocate(size))
        return 0;
    // A FIFO put there must not stall the reader, and a terminal must not become the process's own.
    UniqueFd file(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file.IsValid())
        return 0;
    m_text[ReadUpTo(file.Get(), m_text.get(), size)] = '\0';
    CutLines();
    return close(file.Release());
}

void ConfigFile::Parse(const char* text, size_t size)
{
    Clear();
    if (!Allocate(size))
        return;
    std::memcpy(m_text.get(), text, size);
    m_text[size] = '\0';
    CutLines();
}

const char* ConfigFile::Get(const char* key) const
{
    for (size_t i = m_nSettings; i > 0; --i) {
        if (std::strcmp(m_settings[i - 1].key, key) == 0)
            return m_settings[i - 1].value;
    }
    return nullptr;
}

void ConfigFile::Clear()
{
    m_nSettings = 0;
    m_settings.reset();
    m_text.reset();
}

bool ConfigFile::Allocate(size_t size)
{
    m_text.reset(new (std::nothrow) char[size + 1]);
    return m_text != nullptr;
}

void ConfigFile::CutLines()
{
    m_settings.reset(new (std::nothrow) Setting[CountSettings(m_text.get())]);
    if (!m_settings)
        return;
    char* rest = m_text.get();
    while (char* line = strsep(&rest, "\n"))
        CutLine(line);
}

void ConfigFile::CutLine(char* line)
{
    char* text = SkipTo(line, [](char c) { return !IsSpace(c); });
    if (*text == '#')
        return;
    char* value = text;
    (void)strsep(&value, "="); // ends the key text
    if (value == nullptr || *value == '\0')
        return;
    char* behind = std::strchr(value, '=');
    if (behind != nullptr)
        *behind = '\0';
    m_settings[m_nSettings++] = { CutKey(text), CutValue(value) };
}
