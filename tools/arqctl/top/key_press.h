#pragma once

#include <cstdint>

namespace arqctl::top {

// One key, whatever the terminal sends for it.
struct KeyPress {
    enum class Kind : uint8_t { Letter, Up, Down, Enter, Escape, Backspace, Other };

    Kind kind = Kind::Other;
    char letter = '\0'; // with Letter: printable ASCII
};

} // namespace arqctl::top
