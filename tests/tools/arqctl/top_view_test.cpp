#include <gtest/gtest.h>

#include "arqctl/top/plain_line.h"
#include "top_view_fixture.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace arqctl::top {
namespace {

std::filesystem::path ScreenFile(const std::string& name)
{
    return std::filesystem::path(__FILE__).parent_path() / "screens" / name;
}

std::string KeptScreen(const std::string& name)
{
    std::ifstream file(ScreenFile(name));
    return { std::istreambuf_iterator<char>(file), {} };
}

TEST_F(TopView, At80x24InAsciiThreeProxiesAreThisScreen)
{
    EXPECT_EQ(Screen(80, 24, true), KeptScreen("top_80x24_ascii.txt"));
}

TEST_F(TopView, At80x24TheSecondOneSelectedWithBlocksIsThisScreen)
{
    m_state.isUtf8 = true;
    m_state.selected = 1;
    m_state.message = "10.0.0.1 was added";
    EXPECT_EQ(Screen(80, 24), KeptScreen("top_80x24_blocks.txt"));
}

TEST_F(TopView, At200x50TheInputGoneIsThisScreen)
{
    m_state.isUtf8 = true;
    m_state.selected = 2;
    EXPECT_EQ(Screen(200, 50, true), KeptScreen("top_200x50_gone.txt"));
}

TEST_F(TopView, At120x36FiftyReceiversAndAQuestionAreThisScreen)
{
    m_state.isUtf8 = true;
    m_state.proxies[0].reading.statistics.receivers = Receivers(50);
    Dialog dialog;
    (void)dialog.Press({ KeyPress::Kind::Letter, 'd' }, m_state.proxies, NOW_US);
    (void)dialog.Press({ KeyPress::Kind::Up, '\0' }, m_state.proxies, NOW_US);
    dialog.Fill(m_state);
    EXPECT_EQ(Screen(120, 36, true), KeptScreen("top_120x36_fifty.txt"));
}

TEST_F(TopView, At40x10AndAt20x5TheyAreTheseScreens)
{
    EXPECT_EQ(Screen(40, 10) + Screen(20, 5), KeptScreen("top_small.txt"));
}

TEST_F(TopView, EverySizeHasTheSelectedProxyAndDrawsWithinItself)
{
    m_state.proxies[1].reading.statistics.receivers = Receivers(50);
    m_state.proxies[1].name = "/a/very/long/path/to/some/control/socket/ctrl";
    m_state.proxies[1].facts = std::string(300, 'x');
    m_state.selected = 1;
    for (int columns = 0; columns <= 230; columns += columns < 110 ? 1 : 13)
        for (int rows = 0; rows <= 70; ++rows) {
            const std::string text = Screen(columns, rows);
            if (columns >= 12 && rows >= 1) {
                EXPECT_NE(text.find("> "), std::string::npos) << columns << 'x' << rows;
            }
        }
}

TEST_F(TopView, AtEverySizeAQuestionsBeginningAndItsKeysAreSeen)
{
    Dialog dialog;
    (void)dialog.Press({ KeyPress::Kind::Letter, 'r' }, m_state.proxies, NOW_US);
    dialog.Fill(m_state);
    for (int columns = 13; columns <= 120; ++columns)
        for (int rows = 2; rows <= 40; ++rows) {
            const std::string text = Screen(columns, rows);
            EXPECT_NE(text.find("Set the"), std::string::npos) << columns << 'x' << rows;
            EXPECT_NE(text.find("y yes  n no"), std::string::npos) << columns << 'x' << rows;
        }
}

TEST_F(TopView, TheStateHasAWordAndNotOnlyAColour)
{
    ShownProxy& proxy = m_state.proxies[0];
    const auto first = [&] {
        const Grid grid = DrawView(m_state, 80, 24);
        return grid.Line(2).substr(2, 26) + "|" + grid.Tones(2);
    };
    EXPECT_EQ(first().substr(0, 16), "1           good");
    proxy.reading.isUp = false;
    for (const auto& [failure, word] : { std::pair { Failure::NoAnswer, "NO ANSWER" },
             { Failure::NotListening, "NO PROXY" }, { Failure::NotAllowed, "NO RIGHT" },
             { Failure::TooLong, "NO ANSWER" }, { Failure::None, "asking" } }) {
        proxy.failure = failure;
        EXPECT_NE(first().find(word), std::string::npos) << word;
        EXPECT_EQ(first().find("bbbb") == std::string::npos, failure == Failure::None) << word;
    }
    proxy.reading.isUp = proxy.reading.isInputGone = true;
    EXPECT_NE(first().find("INPUT GONE"), std::string::npos);
    proxy.reading.hasHadInput = false;
    proxy.reading.statistics.receivedPackets = 0;
    EXPECT_NE(first().find("waiting"), std::string::npos);
    proxy.trouble = "ssh: no route";
    EXPECT_NE(first().find("NO WAY"), std::string::npos);
}

TEST_F(TopView, WithoutAnAnswerNoOldFigureStandsThere)
{
    m_state.proxies[0].reading.isUp = false;
    m_state.proxies[0].failure = Failure::NotListening;
    const Grid grid = DrawView(m_state, 80, 24);
    EXPECT_EQ(
        grid.Line(2), "> 1           NO PROXY             -           -       -       -        -     -");
    EXPECT_NE(grid.Line(5).find("1: NO PROXY: nobody listens on /dev/arq_tx_ctrl1: its proxy has ended"),
        std::string::npos);
    EXPECT_NE(Screen(80, 24).find("2 receivers at its last answer"), std::string::npos);
}

TEST_F(TopView, OfManyProxiesThoseAroundTheSelectedOneAreSeen)
{
    for (int i = 4; i <= 60; ++i)
        m_state.proxies.push_back(Good(std::to_string(i), 0));
    m_state.selected = 40;
    const std::string text = Screen(80, 24);
    EXPECT_NE(text.find("> 41 "), std::string::npos);
    EXPECT_NE(text.find("\n  40 "), std::string::npos);
    EXPECT_NE(text.find("\n  42 "), std::string::npos);
    m_state.selected = 59;
    EXPECT_NE(Screen(80, 24).find("> 60 "), std::string::npos);
}

TEST_F(TopView, OfManyReceiversTheMarkedOneIsSeenAndTheRestCounted)
{
    m_state.proxies[0].reading.statistics.receivers = Receivers(50);
    m_state.marked = "10.20.30.50";
    const std::string text = Screen(80, 24);
    EXPECT_NE(text.find("10.20.30.50"), std::string::npos);
    EXPECT_NE(text.find(" more"), std::string::npos);
    EXPECT_EQ(text.find("10.20.30.1 "), std::string::npos);
}

TEST_F(TopView, HelpNamesEveryKeyEvenInANarrowTerminal)
{
    m_state.isHelp = true;
    for (const int columns : { 40, 80, 200 }) {
        const std::string text = Screen(columns, 40);
        for (const char* key : { "\n up, down", "\n a ", "\n d ", "\n i ", "\n r ", "\n q " })
            EXPECT_NE(text.find(key), std::string::npos) << key << columns;
    }
    EXPECT_NE(Screen(80, 24).find("plots"), std::string::npos);
}

TEST_F(TopView, WithoutBlocksEveryByteIsAscii)
{
    m_state.proxies[0].facts = "caf\xc3\xa9";
    for (const int columns : { 20, 80, 200 })
        for (const char byte : Screen(columns, 50))
            ASSERT_GE(byte, 0);
}

TEST_F(TopView, NoProxyAtAllIsSaid)
{
    m_state.proxies.clear();
    EXPECT_NE(Screen(80, 24).find("no proxy runs on this machine"), std::string::npos);
    (void)Screen(3, 3);
}

TEST_F(TopView, APlainLineSaysTheSameInAsciiAndOnOneLine)
{
    EXPECT_EQ(PlainLine(m_state.proxies[0], "14:02:31", NOW_US),
        "14:02:31  1  good  in 12.3 Mbit/s  out 24.7 Mbit/s  lost 0.4/s  resent 12/s  withheld 0/s  receivers 2");
    EXPECT_EQ(PlainLine(m_state.proxies[2], "14:02:31", NOW_US),
        "14:02:31  ssh:edge1/3  INPUT GONE for 12 s  in 0 bit/s  out 0 bit/s  lost 0/s  resent 0/s  withheld 0/s  "
        "receivers 2");
    ShownProxy& silent = m_state.proxies[1];
    silent.name = "/tmp/caf\xc3\xa9\n/ctrl";
    silent.reading.isUp = false;
    silent.failure = Failure::NoAnswer;
    EXPECT_EQ(PlainLine(silent, "14:02:31", NOW_US),
        "14:02:31  /tmp/caf?"
        "?/ctrl  NO ANSWER: no answer in time on /dev/arq_tx_ctrl2");
}

} // namespace
} // namespace arqctl::top
