#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace arqctl {

enum class Verdict { NotApplicable, Good, Warning, Fault }; // the later the worse

// What a check of the doctor found. The name is interface: scripts and the page know it.
struct Finding {
    std::string name;
    Verdict verdict = Verdict::NotApplicable;
    std::string text; // what was found, without a full stop
    std::string advice; // how to mend it, "" where nothing is to be done
    std::string command; // to paste into a shell, "" where no command mends it
};

// "good", "warning", "fault", "not applicable".
const char* VerdictText(Verdict verdict);

// Of all findings; Good without any.
Verdict Worst(const std::vector<Finding>& findings);

// Pieces of a sentence.
inline std::string Piece(const std::string& text)
{
    return text;
}
inline std::string Piece(const char* text)
{
    return text;
}
// A whole number with commas between its thousands: "352,516".
std::string Piece(uint64_t number);
std::string Piece(int64_t number);
inline std::string Piece(int number)
{
    return Piece(static_cast<int64_t>(number));
}
inline std::string Piece(uint32_t number)
{
    return Piece(static_cast<uint64_t>(number));
}
// Ports and instance numbers have no commas.
inline std::string WithoutCommas(int64_t number)
{
    return std::to_string(number);
}
// "0.43 s", "12 s".
std::string SecondsText(double seconds);

template <typename... Pieces>
std::string Say(const Pieces&... pieces)
{
    return (Piece(pieces) + ...);
}

} // namespace arqctl
