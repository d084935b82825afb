#include "arqctl/core/option_words.h"

#include <utility>

namespace arqctl {

namespace {

enum class LetterKind { Unknown, Flag, WithArgument };

LetterKind KindOf(char letter, std::string_view letters)
{
    const size_t place = letters.find(letter);
    if (letter == ':' || letter == ';' || place == std::string_view::npos)
        return LetterKind::Unknown;
    return letters.substr(place + 1, 1) == ":" ? LetterKind::WithArgument : LetterKind::Flag;
}

// Takes the letters of one word; `next` is where an argument in a word of its own would stand, and is stepped over it.
bool TakeLetters(const std::vector<std::string>& arguments, size_t& next, std::string_view word,
    std::string_view letters, std::vector<OptionWord>& options)
{
    for (; !word.empty(); word.remove_prefix(1)) {
        const LetterKind kind = KindOf(word.front(), letters);
        if (kind == LetterKind::Unknown)
            return false;
        if (kind == LetterKind::Flag) {
            options.push_back({ word.front(), {} });
            continue;
        }
        if (word.size() > 1)
            options.push_back({ word.front(), std::string(word.substr(1)) });
        else if (next < arguments.size())
            options.push_back({ word.front(), arguments[next++] });
        else
            return false;
        return true;
    }
    return true;
}

// Takes one word of a text that begins with no blank off its front.
bool TakeWord(std::string_view& text, std::string& word)
{
    char quote = '\0';
    while (!text.empty()
        && (quote != '\0' || (text.front() != ' ' && text.front() != '\t' && text.front() != '\n'))) {
        const char letter = text.front();
        text.remove_prefix(1);
        if (letter == quote)
            quote = '\0';
        else if (quote == '\0' && (letter == '\'' || letter == '"'))
            quote = letter;
        else if (letter == '\\' && quote != '\'') {
            if (text.empty())
                return false;
            word += text.front();
            text.remove_prefix(1);
        } else
            word += letter;
    }
    return quote == '\0';
}

} // namespace

bool SortWords(const std::vector<std::string>& arguments, std::string_view letters, CommandWords& words)
{
    CommandWords sorted;
    bool isOver = false;
    for (size_t next = 1; next < arguments.size();) {
        const std::string& word = arguments[next++];
        if (isOver || word.size() < 2 || word.front() != '-')
            sorted.positionals.push_back(word);
        else if (word == "--")
            isOver = true;
        else if (!TakeLetters(arguments, next, std::string_view { word }.substr(1), letters, sorted.options))
            return false;
    }
    words = std::move(sorted);
    return true;
}

bool CutWords(std::string_view text, std::vector<std::string>& words)
{
    constexpr std::string_view BLANKS = " \t\n";
    std::vector<std::string> cut;
    for (;;) {
        const size_t start = text.find_first_not_of(BLANKS);
        if (start == std::string_view::npos)
            break;
        text.remove_prefix(start);
        if (!TakeWord(text, cut.emplace_back()))
            return false;
    }
    words = std::move(cut);
    return true;
}

} // namespace arqctl
