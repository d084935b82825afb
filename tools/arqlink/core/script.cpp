#include "arqlink/core/script.h"

#include "arqlink/core/settings_text.h"
#include "common/quantity.h"

namespace arqlink {

namespace {

constexpr size_t MOST_LINES = 100'000;
constexpr int64_t SHORTEST_LAP_US = 10'000; // laps that were missed are gone through one by one
constexpr std::string_view CLEAN = "clean";

std::vector<std::string_view> Words(std::string_view line)
{
    std::vector<std::string_view> words;
    constexpr std::string_view BLANKS = " \t\r";
    size_t from = line.find_first_not_of(BLANKS);
    while (from != std::string_view::npos) {
        const size_t to = line.find_first_of(BLANKS, from);
        words.push_back(line.substr(from, to - from));
        from = line.find_first_not_of(BLANKS, to);
    }
    return words;
}

std::string_view WithoutRemark(std::string_view line)
{
    return line.substr(0, line.find('#'));
}

bool ParseTime(std::string_view word, int64_t& timeUs)
{
    if (word.ends_with(':'))
        word.remove_suffix(1);
    return common::ParseDuration(word, timeUs);
}

std::string Quoted(std::string_view word)
{
    return "'" + std::string(word) + "'";
}

// Line by line, the first is 1.
template <typename Function>
bool ForEachLine(std::string_view text, Function function)
{
    for (size_t number = 1; !text.empty(); number++) {
        const size_t end = text.find('\n');
        if (!function(number, WithoutRemark(text.substr(0, end))))
            return false;
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    }
    return true;
}

void Apply(const std::vector<std::pair<std::string, std::string>>& changes, Settings& settings)
{
    std::string problem;
    for (const auto& [name, value] : changes) {
        if (name == CLEAN)
            MakeClean(settings);
        else
            (void)ApplySetting(settings, name, value, problem); // was tried when it was read
    }
}

} // namespace

bool Script::Parse(std::string_view text, std::string& problem)
{
    Text parsed;
    const bool bGood = ForEachLine(text, [&](size_t number, std::string_view line) {
        std::string reason;
        if (number > MOST_LINES)
            reason = "a script has at most " + std::to_string(MOST_LINES) + " lines";
        else if (ParseLine(line, parsed, reason))
            return true;
        problem = "line " + std::to_string(number) + ": " + reason;
        return false;
    });
    if (!bGood)
        return false;
    if (parsed.steps.empty()) {
        problem = "there is no line in it; write for example: 8s both loss 5%";
        return false;
    }
    *this = Script();
    m_steps = std::move(parsed.steps);
    m_ending = parsed.ending;
    m_nEndUs = parsed.endUs;
    return true;
}

bool Script::ParseLine(std::string_view line, Text& text, std::string& problem)
{
    std::vector<std::string_view> words = Words(line);
    if (!words.empty() && (words[0] == "at" || words[0] == "AT"))
        words.erase(words.begin());
    if (words.empty())
        return true;
    Step step;
    if (!ParseTime(words[0], step.atUs)) {
        problem = Quoted(words[0]) + " is not a time such as 8s or 16.2s";
        return false;
    }
    if (text.ending != Ending::None) {
        problem = "nothing may follow repeat or end";
        return false;
    }
    if (!text.steps.empty() && step.atUs < text.steps.back().atUs) {
        problem = Quoted(words[0]) + " is before the line above";
        return false;
    }
    if (words.size() == 2 && (words[1] == "repeat" || words[1] == "end"))
        return ParseEnding(words[1], step.atUs, text, problem);
    if (!ParseStep(words, step, problem))
        return false;
    text.steps.push_back(std::move(step));
    return true;
}

bool Script::ParseEnding(std::string_view word, int64_t atUs, Text& text, std::string& problem)
{
    if (word == "repeat" && atUs < SHORTEST_LAP_US) {
        problem = "repeat needs a time of 10ms or more";
        return false;
    }
    text.ending = word == "end" ? Ending::End : Ending::Repeat;
    text.endUs = atUs;
    return true;
}

bool Script::ParseStep(const std::vector<std::string_view>& words, Step& step, std::string& problem)
{
    const std::string_view direction = words.size() > 1 ? words[1] : std::string_view();
    step.bDown = direction == "down" || direction == "both";
    step.bUp = direction == "up" || direction == "both";
    if (!step.bDown && !step.bUp) {
        problem = "after the time comes down, up or both, or as the last line repeat or end, not "
            + Quoted(direction);
        return false;
    }
    if (words.size() == 2) {
        problem = "after the direction comes a setting such as loss 5%, or clean";
        return false;
    }
    Settings tried;
    for (size_t i = 2; i < words.size(); i++) {
        if (words[i] == CLEAN) {
            step.changes.emplace_back(CLEAN, "");
            continue;
        }
        const std::string_view value = i + 1 < words.size() ? words[i + 1] : std::string_view();
        if (!ApplySetting(tried, words[i], value, problem))
            return false;
        step.changes.emplace_back(words[i++], value);
    }
    return true;
}

bool Script::Advance(int64_t elapsedUs, Settings& down, Settings& up)
{
    bool bChanged = false;
    while (NextUs() <= elapsedUs) {
        if (m_nNext == m_steps.size()) {
            Finish();
            continue;
        }
        const Step& step = m_steps[m_nNext++];
        if (step.bDown)
            Apply(step.changes, down);
        if (step.bUp)
            Apply(step.changes, up);
        bChanged = true;
    }
    return bChanged;
}

void Script::Finish()
{
    m_bEnded = m_ending == Ending::End;
    if (m_ending != Ending::Repeat)
        return;
    m_nLapUs += m_nEndUs;
    m_nNext = 0;
}

int64_t Script::NextUs() const
{
    if (m_nNext < m_steps.size())
        return m_nLapUs + m_steps[m_nNext].atUs;
    if (m_ending == Ending::None || m_bEnded)
        return NEVER;
    return m_nLapUs + m_nEndUs;
}

} // namespace arqlink
