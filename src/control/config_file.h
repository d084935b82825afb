#pragma once

#include <cstddef>
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
    // that of closing the file; 0 also when it cannot be opened, is larger than 1 MiB or memory is short,
    // with nothing read. A FIFO, a device or a folder is like an empty file.
    int Load(const char* path);

    // The same for a text in memory, of `size` bytes up to its first zero.
    void Parse(const char* text, size_t size);

    // The value of the key, or null. The last line that has the key wins.
    const char* Get(const char* key) const;

private:
    struct Setting {
        const char* key;
        const char* value;
    };

    void Clear();
    bool Allocate(size_t size);
    void CutLines();
    void CutLine(char* line);

    std::unique_ptr<char[]> m_text; // zero-terminated; keys and values point into it
    std::unique_ptr<Setting[]> m_settings; // as the lines come; room for all of them is made at once
    size_t m_nSettings = 0;
};
