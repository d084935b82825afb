#pragma once

#include "arqlink/core/line.h"
#include "arqlink/core/settings.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace arqlink {

// The settings of both directions over time, from a small text:
//
//     # time  direction  settings
//     0s      both       clean delay 20ms
//     8s      both       loss 5%
//     16s     down       blackout on
//     16.2s   down       blackout off
//     24s     both       clean
//     30s     repeat
//
// A line is a time since the start, "down", "up" or "both", and settings as on the command line, each a name and a
// value; "clean" is a word by itself and ends all that loses or changes packets. "at" before the time and a colon
// behind it may be written. The times do not go down. The last line may be "TIME repeat" (from the start again; the
// settings stay as they are until a line changes them) or "TIME end".
class Script {
public:
    // False: `problem` names the line and what is wrong with it, without a full stop; the script stays as it was.
    bool Parse(std::string_view text, std::string& problem);

    // Brings both directions to what holds at this time since the start. It never goes back: each line is applied once
    // (a lap). True if a line was.
    bool Advance(int64_t elapsedUs, Settings& down, Settings& up);

    // The time since the start of the next line, the repetition or the end; NEVER if there is none.
    int64_t NextUs() const;
    // "TIME end" has been reached.
    bool HasEnded() const { return m_bEnded; }
    bool IsEmpty() const { return m_steps.empty(); }

private:
    enum class Ending : uint8_t { None, Repeat, End };
    struct Step {
        int64_t atUs = 0;
        bool bDown = false;
        bool bUp = false;
        std::vector<std::pair<std::string, std::string>> changes; // name and value; "clean" has none
    };
    struct Text {
        std::vector<Step> steps;
        Ending ending = Ending::None;
        int64_t endUs = 0;
    };

    static bool ParseLine(std::string_view line, Text& text, std::string& problem);
    static bool ParseEnding(std::string_view word, int64_t atUs, Text& text, std::string& problem);
    static bool ParseStep(const std::vector<std::string_view>& words, Step& step, std::string& problem);
    void Finish();

    std::vector<Step> m_steps;
    Ending m_ending = Ending::None;
    int64_t m_nEndUs = 0;
    size_t m_nNext = 0;
    int64_t m_nLapUs = 0; // when the present lap began
    bool m_bEnded = false;
};

} // namespace arqlink
