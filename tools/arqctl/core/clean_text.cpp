#include "arqctl/core/clean_text.h"

#include <cstdint>

namespace arqctl {

namespace {

struct Character {
    uint32_t code = 0;
    size_t length = 0; // bytes; 0: these are none
};

size_t LengthByLead(uint8_t lead)
{
    if (lead < 0x80)
        return 1;
    if (lead >= 0xC2 && lead < 0xE0)
        return 2;
    if (lead >= 0xE0 && lead < 0xF0)
        return 3;
    return lead >= 0xF0 && lead < 0xF5 ? 4 : 0;
}

bool IsWritten(const Character& character)
{
    constexpr uint32_t SHORTEST[]
        = { 0, 0, 0x80, 0x800, 0x10000 }; // by length: anything less is written too long
    return character.code >= SHORTEST[character.length] && character.code <= 0x10FFFF
        && (character.code < 0xD800 || character.code > 0xDFFF);
}

Character First(std::string_view text)
{
    Character character;
    const auto lead = static_cast<uint8_t>(text.front());
    const size_t length = LengthByLead(lead);
    if (length == 0 || length > text.size())
        return character;
    character.code = length == 1 ? lead : lead & (0x7FU >> length);
    for (const char next : text.substr(1, length - 1)) {
        if ((static_cast<uint8_t>(next) & 0xC0U) != 0x80)
            return character;
        character.code = character.code << 6 | (static_cast<uint8_t>(next) & 0x3FU);
    }
    character.length = length;
    return IsWritten(character) ? character : Character {};
}

bool IsPrintable(uint32_t code)
{
    if (code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0xFEFF)
        return false;
    const bool isMark = (code >= 0x200B && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E)
        || (code >= 0x2060 && code <= 0x206F);
    return !isMark && (code & 0xFFFE) != 0xFFFE;
}

} // namespace

std::string CleanText(std::string_view text, size_t longest)
{
    std::string clean;
    while (!text.empty()) {
        const Character character = First(text);
        const bool isGood = character.length > 0 && IsPrintable(character.code);
        const size_t length = character.length > 0 ? character.length : 1;
        if (clean.size() + (isGood ? length : 1) > longest)
            break;
        if (isGood)
            clean += text.substr(0, length);
        else
            clean += '?';
        text.remove_prefix(length);
    }
    return clean;
}

} // namespace arqctl
