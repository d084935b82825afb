#include <cstddef>
#include <cstdint>
#include <cstring>

#include "control/config_file.h"

// Any text is read without touching memory outside it, and every value is found whole again.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ConfigFile file;
    file.Parse(reinterpret_cast<const char*>(data), size);
    size_t total = 0;
    for (const char* key : { "min_drop", "min_dist", "max_drop", "max_dist", "mode", "a", "" }) {
        const char* value = file.Get(key);
        if (value == nullptr)
            continue;
        total += std::strlen(value);
        if (std::strchr(value, '\n') != nullptr || std::strchr(value, '=') != nullptr)
            __builtin_trap(); // a value never crosses its line or a second "="
    }
    if (total > size)
        __builtin_trap(); // values are pieces of the text that do not overlap
    return 0;
}
