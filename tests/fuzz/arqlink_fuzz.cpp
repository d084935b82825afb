// Scripts of arqlink, as people write them: read or refused with a message, and gone through from line to line. What
// stands behind a byte of 0 says how time goes on meanwhile, and which packets enter a line that the script configures.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "arqlink/core/line.h"
#include "arqlink/core/script.h"
#include "arqlink/core/settings_text.h"
#include "fuzz/world/input_reader.h"
#include "fuzz/world/require.h"

namespace {

using arqlink::Line;
using arqlink::NEVER;
using arqlink::Script;
using arqlink::Settings;

constexpr int MOST_STEPS = 100;
constexpr int64_t LONGEST_JUMP_US = 10'000'000; // a thousand laps of the shortest script

void RequireMessage(const std::string& problem)
{
    Require(problem.starts_with("line ") || problem.starts_with("there is no line"), "a refusal says where");
    Require(!problem.ends_with('.') && problem.find('\n') == std::string::npos, "in one sentence");
}

// What is refused leaves the script as it was.
void RefuseInto(const Script& before, std::string_view text)
{
    Script script = before;
    std::string problem;
    if (script.Parse(text, problem))
        return;
    RequireMessage(problem);
    Require(
        script.NextUs() == before.NextUs() && script.IsEmpty() == before.IsEmpty(), "nothing has changed");
}

bool IsRatio(double value)
{
    return value >= 0 && value <= 1;
}

void Look(const Settings& settings)
{
    const auto& [enter, leave, bad, good] = settings.burst;
    for (const double ratio :
        { settings.loss, settings.reorder, settings.duplicate, settings.corrupt, enter, leave, bad, good })
        Require(IsRatio(ratio), "a ratio is from 0 to 1");
    for (const int64_t amount :
        { settings.delayUs, settings.jitterUs, settings.rateBits, settings.queueUs, settings.queueBytes })
        Require(amount >= 0, "no amount is below 0");
}

// Settings are shown as they would be written, and so they can be read again.
void WriteAndRead(const Settings& settings)
{
    const std::string text = arqlink::SettingsText(settings);
    Script script;
    std::string problem;
    Require(script.Parse("0s down " + text, problem), "what is shown can be read");
    Settings down, up;
    Require(script.Advance(0, down, up), "at once");
    Require(arqlink::SettingsText(down) == text && up == Settings(), "as the same");
}

class Play {
public:
    Play(Script& script, InputReader& input) : m_script(script), m_input(input), m_line(1, m_down, m_store) {}

    void Step()
    {
        const int64_t nextUs = m_script.NextUs();
        const uint8_t jump = m_input.Byte();
        if (jump != 0 || nextUs == NEVER)
            m_nNowUs += LONGEST_JUMP_US * jump / UINT8_MAX;
        else
            m_nNowUs = std::max(m_nNowUs, nextUs);
        const bool isChanged = m_script.Advance(m_nNowUs, m_down, m_up);
        Require(!isChanged || nextUs <= m_nNowUs, "nothing comes before its time");
        Require(m_script.NextUs() > m_nNowUs, "what is over is over");
        if (isChanged) {
            LookAndConfigure();
        }
        SendSome();
    }

private:
    void LookAndConfigure()
    {
        for (const Settings* settings : { &m_down, &m_up }) {
            Look(*settings);
            WriteAndRead(*settings);
        }
        m_line.Configure(m_down);
    }

    void SendSome()
    {
        std::vector<uint8_t> packet(20, 0x80);
        for (int count = m_input.Byte() & 3; count > 0; --count) {
            packet[2] = m_input.Byte();
            packet[3] = m_input.Byte();
            m_line.Push(packet, m_nNowUs);
        }
        arqlink::Delivery delivery;
        while (m_line.PopDue(m_nNowUs, delivery))
            Require(delivery.dueUs <= m_nNowUs && delivery.bytes.size() == packet.size(),
                "whole, and not too soon");
        const arqlink::Counts& counts = m_line.Figures();
        Require(counts.came + counts.duplicated == counts.delivered + counts.Lost() + m_line.UnderWay(),
            "each has its place");
    }

    Script& m_script;
    InputReader& m_input;
    arqlink::PacketStore m_store;
    Settings m_down, m_up;
    Line m_line;
    int64_t m_nNowUs = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string_view all(reinterpret_cast<const char*>(data), size);
    const std::string text(all.substr(0, all.find('\0'))); // in memory of its own size
    InputReader input(data + std::min(text.size() + 1, size), size - std::min(text.size() + 1, size));
    Script script;
    std::string problem;
    if (!script.Parse(text, problem)) {
        RequireMessage(problem);
        Require(script.IsEmpty() && script.NextUs() == NEVER, "nothing of it is done");
        return 0;
    }
    Require(!script.IsEmpty() && script.NextUs() >= 0 && script.NextUs() != NEVER, "a script begins");
    RefuseInto(script, text.substr(0, text.size() / 2));
    Play play(script, input);
    for (int i = 0; i < MOST_STEPS && !script.HasEnded(); ++i)
        play.Step();
    return 0;
}
