#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace arqctl {

// One option letter of a command line with its argument, "" for a letter that takes none.
struct OptionWord {
    char letter = '\0';
    std::string argument;
};

struct CommandWords {
    std::vector<OptionWord> options; // in their order
    std::vector<std::string> positionals;
};

// Sorts a command line, the program's name first, as getopt does on this system: letters may share a word ("-uz"), an
// argument stands behind its letter or is the whole next word ("-p5", "-p 5", "-N -h"), options may stand behind
// positional words, "--" ends them, and a "-" alone is a positional word. `letters` has a ":" behind each one that takes
// an argument. False with an unknown letter, or where the last one's argument is missing.
bool SortWords(const std::vector<std::string>& arguments, std::string_view letters, CommandWords& words);

// Words of a text as a shell cuts it: blanks between words, '...' and "..." around words with blanks, \ before a single
// character. No variables, no patterns. False where a quote is not closed or nothing follows the last \.
bool CutWords(std::string_view text, std::vector<std::string>& words);

} // namespace arqctl
