#include <gtest/gtest.h>

#include "top_view_fixture.h"

namespace arqctl::top {
namespace {

class TopDialog : public TopView {
protected:
    std::optional<Order> Press(KeyPress::Kind kind, char letter = '\0')
    {
        return m_dialog.Press({ kind, letter }, m_state.proxies, NOW_US);
    }
    // Letters; the last one's order.
    std::optional<Order> Type(std::string_view letters)
    {
        std::optional<Order> order;
        for (const char letter : letters)
            order = Press(KeyPress::Kind::Letter, letter);
        return order;
    }
    std::string Message()
    {
        m_dialog.Fill(m_state);
        return m_state.message;
    }
    std::string Keys()
    {
        m_dialog.Fill(m_state);
        return m_state.keys;
    }

    Dialog m_dialog;
};

TEST_F(TopDialog, AnAddressIsTypedAskedForAndOnlyThenAdded)
{
    m_state.proxies[0].mediaPort = 10'000;
    EXPECT_EQ(Type("a10.0.0.99"), std::nullopt);
    (void)Press(KeyPress::Kind::Backspace);
    EXPECT_EQ(Message(), "Add to proxy 1, address or host name: 10.0.0.9_");
    EXPECT_EQ(Press(KeyPress::Kind::Enter), std::nullopt);
    EXPECT_EQ(Message(),
        "Add 10.0.0.9 to proxy 1? It is sent every packet from now on to UDP port 10000, whether somebody receives there "
        "or not.");
    EXPECT_EQ(Type("y"), (Order { Order::Kind::Add, "1", "10.0.0.9" }));
    EXPECT_EQ(Message(), "adding 10.0.0.9 to proxy 1 ...");
    EXPECT_EQ(Type("y"), std::nullopt);
}

TEST_F(TopDialog, AReceiverIsChosenFromTheListInACircle)
{
    (void)Type("d");
    EXPECT_EQ(Message(), "Delete from proxy 1: 10.0.0.1");
    EXPECT_EQ(m_state.marked, "10.0.0.1");
    (void)Press(KeyPress::Kind::Down);
    EXPECT_EQ(Message(), "Delete from proxy 1: 192.168.100.200");
    (void)Press(KeyPress::Kind::Down);
    (void)Press(KeyPress::Kind::Up);
    (void)Press(KeyPress::Kind::Enter);
    EXPECT_EQ(Type("Y"), (Order { Order::Kind::Delete, "1", "192.168.100.200" }));
}

TEST_F(TopDialog, LossIsSwitchedOnWhereNothingIsWithheldAndOffWhereItIs)
{
    (void)Type("i");
    EXPECT_EQ(Keys(), "y yes  n no");
    EXPECT_EQ(Type("y"), (Order { Order::Kind::ImpairOn, "1", "" }));
    (void)Press(KeyPress::Kind::Down);
    EXPECT_EQ(Type("iy"), (Order { Order::Kind::ImpairOff, "2", "" }));
}

TEST_F(TopDialog, NoOrEscapeChangesNothingAndOtherKeysLeaveTheQuestion)
{
    for (const char no : { 'n', 'N', 'q' }) {
        EXPECT_EQ(Type("r"), std::nullopt);
        EXPECT_EQ(Type("xard?"), std::nullopt);
        EXPECT_EQ(Press(KeyPress::Kind::Enter), std::nullopt); // no is not a default, yes neither
        EXPECT_EQ(Keys(), "y yes  n no");
        EXPECT_EQ(Type(std::string_view(&no, 1)), std::nullopt);
        EXPECT_EQ(Message(), "nothing was changed");
    }
    (void)Type("a1");
    (void)Press(KeyPress::Kind::Escape);
    (void)Type("d");
    (void)Press(KeyPress::Kind::Escape);
    EXPECT_EQ(Type("y"), std::nullopt);
    EXPECT_FALSE(m_dialog.WantsEnd());
}

TEST_F(TopDialog, AProxyThatDoesNotAnswerIsLeftAlone)
{
    m_state.proxies[0].reading.isUp = false;
    for (const char key : { 'a', 'd', 'i', 'r' }) {
        EXPECT_EQ(Type(std::string { key, 'y' }), std::nullopt);
        EXPECT_EQ(Keys(), "");
    }
    (void)Type("r");
    EXPECT_EQ(Message(), "proxy 1 does not answer: nothing was changed");
    m_state.proxies[1].reading.statistics.receivers.clear();
    (void)Type("jd");
    EXPECT_EQ(Message(), "proxy 2 has no receiver: nothing was changed");
    m_state.proxies.clear();
    EXPECT_EQ(Type("adiry"), std::nullopt);
}

TEST_F(TopDialog, WhileOneChangeIsUnderWayNoOtherIsBegun)
{
    (void)Type("ry");
    m_dialog.SetBusy(true);
    EXPECT_EQ(Type("ry"), std::nullopt);
    EXPECT_EQ(Message(), "no such key: press ? for those there are"); // the y
    (void)Type("a");
    EXPECT_EQ(Message(), "wait: the last change is still under way");
    m_dialog.SetBusy(false);
    EXPECT_EQ(Type("ry"), (Order { Order::Kind::Reset, "1", "" }));
}

TEST_F(TopDialog, AQuestionKeepsItsProxyWhenTheListChanges)
{
    (void)Type("jr");
    m_state.proxies.erase(m_state.proxies.begin());
    EXPECT_EQ(m_dialog.SelectedOf(m_state.proxies), 0U);
    EXPECT_EQ(Type("y"), (Order { Order::Kind::Reset, "2", "" }));
    m_state.proxies.erase(m_state.proxies.begin());
    (void)Type("k");
    EXPECT_EQ(m_dialog.SelectedOf(m_state.proxies), 0U); // the second one is gone
}

TEST_F(TopDialog, TheSelectionStopsAtBothEnds)
{
    for (const size_t wanted : { 1U, 2U, 2U }) {
        (void)Press(KeyPress::Kind::Down);
        EXPECT_EQ(m_dialog.SelectedOf(m_state.proxies), wanted);
    }
    (void)Type("kkk");
    EXPECT_EQ(m_dialog.SelectedOf(m_state.proxies), 0U);
}

TEST_F(TopDialog, APortIsNotMadePartOfTheAddress)
{
    (void)Type("a10.0.0.1:5");
    (void)Press(KeyPress::Kind::Enter);
    EXPECT_EQ(Message(), "Add to proxy 1, address or host name: 10.0.0.1:_  neither a port nor IPv6 goes");
    (void)Press(KeyPress::Kind::Backspace);
    (void)Press(KeyPress::Kind::Enter);
    EXPECT_EQ(Type("y"), (Order { Order::Kind::Add, "1", "10.0.0.1" }));
}

TEST_F(TopDialog, NoMoreThanAWordIsTyped)
{
    (void)Type("a 10 0");
    EXPECT_EQ(Message(), "Add to proxy 1, address or host name: 100_");
    (void)Type(std::string(400, 'x'));
    EXPECT_EQ(
        LettersOf(Message()).size(), std::string("Add to proxy 1, address or host name: _").size() + 253);
    for (int i = 0; i < 300; ++i)
        (void)Press(KeyPress::Kind::Backspace);
    (void)Press(KeyPress::Kind::Enter);
    EXPECT_EQ(Message(), "nothing was changed");
}

TEST_F(TopDialog, HelpIsLeftByAnyKeyAndQQuits)
{
    (void)Type("?");
    m_dialog.Fill(m_state);
    EXPECT_TRUE(m_state.isHelp);
    EXPECT_EQ(Type("r"), std::nullopt);
    m_dialog.Fill(m_state);
    EXPECT_FALSE(m_state.isHelp);
    EXPECT_EQ(Keys(), "");
    EXPECT_FALSE(m_dialog.WantsEnd());
    (void)Type("q");
    EXPECT_TRUE(m_dialog.WantsEnd());
}

} // namespace
} // namespace arqctl::top
