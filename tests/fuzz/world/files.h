#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The files that the control thread looks at, all of them in memory: which of them are there and what the settings
// file holds. file_calls.cpp leads the calls of the C library here while a kernel is entered.
//
// Threads: one.
class Files {
public:
    // What stat says of the settings file's length, by which its reader sets memory aside, less its real length:
    // a file may grow or shrink while it is read.
    static inline long s_nStatError = 0;
    static inline bool s_bHasToggle = false;
    static inline bool s_bHasSettings = false;
    static inline bool s_bHasClearRequest = false;

    // The settings file gets this text.
    static void WriteSettings(std::string_view text);
    // Its descriptor, of memory.
    static int Descriptor();
    static size_t Size();

    // The word above that tells whether the file is there; null for any other file.
    static bool* Find(const char* path);
    static bool IsSettings(const char* path);
};
