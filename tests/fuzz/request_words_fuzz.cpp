#include <cstddef>
#include <cstdint>
#include <string_view>

#include "control/request_words.h"

// The words of any request are views into it, in order, without blanks, and none but the last is followed by
// anything else than a blank.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string_view request(reinterpret_cast<const char*>(data), size);
    const RequestWords words(request);
    if (words.Count() > RequestWords::MAX_WORDS)
        __builtin_trap();
    const char* behind = request.data();
    for (size_t i = 0; i < words.Count(); ++i) {
        const std::string_view word = words.Word(i);
        const char* end = word.data() + word.size();
        if (word.empty() || word.find(' ') != std::string_view::npos || word.data() < behind
            || end > request.data() + request.size())
            __builtin_trap();
        if (end != request.data() + request.size() && *end != ' ')
            __builtin_trap();
        behind = end;
    }
    if (words.Command() != words.Word(0) || words.Argument() != words.Word(1)
        || !words.Word(words.Count()).empty())
        __builtin_trap();
    return 0;
}
