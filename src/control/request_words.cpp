#include "control/request_words.h"

RequestWords::RequestWords(std::string_view request)
{
    constexpr char BLANK = ' ';
    while (m_nCount < MAX_WORDS) {
        const size_t start = request.find_first_not_of(BLANK);
        if (start == std::string_view::npos)
            return;
        request.remove_prefix(start);
        const size_t length = request.find(BLANK);
        m_words[m_nCount++] = request.substr(0, length);
        if (length == std::string_view::npos)
            return;
        request.remove_prefix(length);
    }
}
