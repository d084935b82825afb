#include "demo/view.h"

#include <filesystem>
#include <fstream>
#include <regex>

#include <gtest/gtest.h>

#include "demo/format.h"
#include "demo/plain_table.h"
#include "demo/test_picture.h"

namespace {

using demo::Colors;

// A run of 30 s after 21.3 s: some loss in the second phase, the burst, and its end not recovered yet.
class View : public testing::Test {
protected:
    View()
    {
        for (int64_t time = 0; time < NOW_US; time += demo::History::STRETCH_US) {
            const demo::Phase& phase = demo::PhaseAt(m_phases, time);
            demo::Stretch& stretch = m_history.At(time);
            stretch.sent = 30;
            const auto lost = static_cast<uint32_t>(phase.level == 2 ? 30
                    : phase.level == 1                               ? time / 100'000 % 4
                                                                     : 0);
            const uint32_t late = phase.level == 2 ? 12 : 0;
            stretch.sides = { { { lost, lost - late, 0 }, { lost, 0, lost } } };
        }
        m_state.timeUs = NOW_US;
        m_state.lengthUs = LENGTH_US;
        m_state.sent = 6390;
        m_state.source = "built-in test picture, 3.2 Mbit/s";
        m_state.phases = &m_phases;
        m_state.history = &m_history;
        arqrx::Figures& a = m_state.figures[0];
        a.received = 6350;
        a.missing = 262;
        a.recovered = 238;
        a.waiting = 24;
        a.numbersAsked = 301;
        a.roundTripUs = 40'600;
        a.bufferedUs = 993'000;
        arqrx::Figures& b = m_state.figures[1];
        b.received = 6128;
        b.missing = b.lost = 262;
        b.bufferedUs = 1'000'000;
        m_state.proxy = demo::ProxyFigures { 6390, 3'187'200, 0, 12'780, 6'374'400 };
        m_state.proxyNote = "no figures: its control socket is out of reach";
        m_state.pictures = { &m_picture, &m_picture };
    }

    std::string Screen(int columns, int rows, Colors colors, bool isUtf8) const
    {
        const demo::Screen screen = demo::DrawView(m_state, columns, rows, { colors, isUtf8 });
        EXPECT_EQ(screen.Rows(), rows);
        std::string text;
        for (int row = 0; row < rows; ++row) {
            const std::string line = screen.Line(row, colors);
            static const std::regex ESCAPE("\x1b\\[[0-9;]*m");
            EXPECT_LE(demo::LetterCount(std::regex_replace(line, ESCAPE, "")), columns);
            text += line + "\n";
        }
        return text;
    }

    // As it stands in screens/; there an escape is written as "^[".
    static std::string Expected(const std::string& name)
    {
        std::ifstream file(std::filesystem::path(__FILE__).parent_path() / "screens" / name);
        std::string text { std::istreambuf_iterator<char>(file), {} };
        for (size_t at; (at = text.find("^[")) != std::string::npos;)
            text.replace(at, 2, "\x1b");
        return text;
    }

    static constexpr int64_t LENGTH_US = 30'000'000;
    static constexpr int64_t NOW_US = 21'300'000;
    std::vector<demo::Phase> m_phases = demo::Phases(LENGTH_US);
    demo::History m_history { LENGTH_US };
    demo::Canvas m_picture = demo::DrawTestPicture(333);
    demo::ViewState m_state;
};

} // namespace

TEST_F(View, At80x24InAsciiWithoutColorsIsThisScreen)
{
    EXPECT_EQ(Screen(80, 24, Colors::None, false), Expected("80x24_ascii.txt"));
}

TEST_F(View, At80x24InUtf8WithoutColorsIsThisScreen)
{
    EXPECT_EQ(Screen(80, 24, Colors::None, true), Expected("80x24_utf8.txt"));
}

TEST_F(View, At80x24WithColorsIsThisScreenWithThePictures)
{
    EXPECT_EQ(Screen(80, 24, Colors::Palette, true), Expected("80x24_colors.txt"));
}

TEST_F(View, At200x50InAsciiWithoutColorsIsThisScreen)
{
    EXPECT_EQ(Screen(200, 50, Colors::None, false), Expected("200x50_ascii.txt"));
}

TEST_F(View, At200x50WithColorsIsThisScreenWithThePictures)
{
    EXPECT_EQ(Screen(200, 50, Colors::True, true), Expected("200x50_colors.txt"));
}

TEST_F(View, WithColorsInAsciiThereIsNoByteThatIsNotAscii)
{
    for (const char byte : Screen(80, 24, Colors::Palette, false))
        ASSERT_GE(byte, 0);
}

TEST_F(View, WithoutColorsThereIsNoEscape)
{
    for (const bool isUtf8 : { false, true })
        EXPECT_EQ(Screen(120, 40, Colors::None, isUtf8).find('\x1b'), std::string::npos);
}

TEST_F(View, EverySizeIsDrawnWithinItself)
{
    for (int columns = 1; columns <= 220; columns += columns < 100 ? 1 : 17)
        for (int rows = 1; rows <= 60; rows += rows < 30 ? 1 : 7)
            (void)Screen(columns, rows, rows % 2 == 0 ? Colors::True : Colors::None, columns % 2 == 0);
}

TEST_F(View, WithoutTheProxysFiguresItSaysWhy)
{
    m_state.proxy.reset();
    EXPECT_NE(
        Screen(80, 24, Colors::None, false).find("tx_proxy no figures: its control socket is out of reach\n"),
        std::string::npos);
}

TEST_F(View, BeforeTheFirstPacketItIsEmptyButWhole)
{
    m_state.timeUs = 0;
    m_history = demo::History(LENGTH_US);
    m_state.pictures = {};
    const std::string screen = Screen(80, 24, Colors::Palette, true);
    EXPECT_NE(screen.find("0.0 s of 30 s"), std::string::npos);
    EXPECT_EQ(screen.find("▀"), std::string::npos);
}

TEST_F(View, TheTablesColumnsStandBelowTheirNames)
{
    EXPECT_EQ(demo::TableHead() + demo::TableRow("21 s", m_state),
        "      |                        | A asks for what is missing     | B does not ask                 |\n"
        " time | line              sent |    got missing recovered  lost |    got missing recovered  lost | round trip\n"
        " 21 s | clean             6390 |   6350     262       238     0 |   6128     262         0   262 |      41 ms\n");
}
