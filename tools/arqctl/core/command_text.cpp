#include "arqctl/core/command_text.h"

#include <algorithm>
#include <string_view>

#include "arqctl/core/option_words.h"
#include "arqctl/core/ssh_texts.h"

namespace arqctl {

namespace {

// As the proxy reads them.
constexpr std::string_view SHOWN_LETTERS = "1:a:b:G:hl:n:p:q:r:uI:N:X:zZ:";
constexpr std::string_view HIDDEN = "***";

bool IsPlainWord(std::string_view word)
{
    constexpr std::string_view PLAIN
        = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_./:,=+@%*";
    return !word.empty() && word.find_first_not_of(PLAIN) == std::string_view::npos;
}

void Hide(std::string& word, const std::string& secret)
{
    if (word == secret || (word.starts_with('-') && word.ends_with(secret)))
        word.replace(word.size() - secret.size(), secret.size(), HIDDEN);
}

} // namespace

std::string CommandText(const std::vector<std::string>& arguments)
{
    if (arguments.empty())
        return "";
    std::vector<std::string> words = arguments;
    words.front().erase(0, words.front().rfind('/') + 1); // npos + 1 is 0
    CommandWords sorted;
    if (!SortWords(arguments, SHOWN_LETTERS, sorted))
        return Printable(words.front()); // what is a password is not known then
    for (const OptionWord& option : sorted.options)
        if (option.letter == 'Z' && !option.argument.empty())
            std::for_each(
                words.begin() + 1, words.end(), [&](std::string& word) { Hide(word, option.argument); });
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " ") + (IsPlainWord(word) ? word : ShellQuoted(Printable(word)));
    return text;
}

} // namespace arqctl
