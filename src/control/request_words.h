#pragma once

#include <cstddef>
#include <string_view>

// A control request split at single blanks; runs of blanks count as one. Views into the request text.
class RequestWords {
public:
    static constexpr size_t MAX_WORDS = 11; // the command and 10 more; the rest is dropped

    explicit RequestWords(std::string_view request);

    // The first word; empty when there is none.
    std::string_view Command() const { return Word(0); }
    // The word behind it; empty when there is none.
    std::string_view Argument() const { return Word(1); }

    size_t Count() const { return m_nCount; }
    std::string_view Word(size_t index) const
    {
        return index < MAX_WORDS ? m_words[index] : std::string_view();
    }

private:
    std::string_view m_words[MAX_WORDS];
    size_t m_nCount = 0;
};
