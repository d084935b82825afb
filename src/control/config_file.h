#pragma once

#include <cstddef>
#include <cstring>
#include <map>
#include <memory>

// Reader of text files made of key=value lines. Keys and values are cut in place out of one buffer.
//
//     # a comment, also behind blanks
//     key = value     a value of letters and digits ends at the first blank
//     key = "a b"     no: a quoted value must follow "=" at once
//     key="a b"       yes
//
// Threads: none of its own; one caller at a time.
class ConfigFile {
public:
    ConfigFile() = default;
    ConfigFile(const ConfigFile&) = delete;
    ConfigFile& operator=(const ConfigFile&) = delete;

    // Reads the file in place of what was read before. Returns the result of stat when that is not 0, else
    // that of closing the file; 0 also when it cannot be opened or memory is short, with nothing read.
    int Load(const char* path);

    // The same for a text in memory, of `size` bytes up to its first zero.
    void Parse(const char* text, size_t size);

    // The value of the key, or null. A key that is not there is added with a null value: the key's text
    // must outlive the reader.
    const char* Get(const char* key);

private:
    struct TextLess {
        bool operator()(const char* a, const char* b) const { return std::strcmp(a, b) < 0; }
    };

    bool Allocate(size_t size);
    void CutLines();
    void CutLine(char* line);

    std::unique_ptr<char[]> m_text; // zero-terminated; keys and values point into it
    std::map<const char*, const char*, TextLess> m_values;
};
